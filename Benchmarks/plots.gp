# SPDX-License-Identifier: Apache-2.0
# gnuplot -e "points='FILE'; into='DIRECTORY'" Benchmarks/plots.gp: one picture for each series of bench_growth.
set datafile separator "\t"
set terminal svg size 640,420 font "sans,12"
set logscale xy
set grid
set key left top
set ylabel "microseconds"
series(name) = sprintf("< grep '^%s\t' '%s'", name, points)
do for [i = 1:5] {
  name = word("one_evaluation one_hook_event_applied reading_a_Claude_Code_log loading_the_usage_store a_report_by_model", i)
  title = system(sprintf("echo %s | tr _ ' '", name))
  set output sprintf("%s/%s.svg", into, system(sprintf("echo %s | tr _A-Z -a-z", name)))
  set title title
  set xlabel (i <= 2 ? "sessions" : i == 3 ? "bytes of the log" : "stored events")
  plot series(title) using 2:3 with linespoints lw 2 title "ours", series(title) using 2:4 with linespoints lw 2 dt 2 title "reference"
}
