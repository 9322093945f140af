# SPDX-License-Identifier: Apache-2.0
# Read by ctest before it runs anything: tests compare what programs print, whatever language their developer speaks.
set(ENV{LC_ALL} C.UTF-8)
unset(ENV{LANGUAGE})
# Tests leave the sources as they are.
set(ENV{PYTHONDONTWRITEBYTECODE} 1)
