#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Makes the shell completions: completions.py REFERENCE.json RELAY.md OUTPUT

REFERENCE.json is what command_reference wrote down, RELAY.md the relay's document, whose table has its options. The
three scripts know the same tables: commands, their options, and what each option and position takes."""
import json
import pathlib
import re
import sys

FILES = "@files"
COMMAND = "@command"
SETTING_VALUE = "@setting"
PATH_WORDS = {"FILE", "PATH", "DIRECTORY", "WORLD.json", "SCENARIO.json"}


class Tables:
    """What may stand where, by the path of the command ("" is the program itself, "settings set" a command)."""

    def __init__(self, reference: dict) -> None:
        self.agents = [agent for agent in reference["agents"] if agent != "custom"]
        self.settings = {setting["key"]: setting for setting in reference["settings"]}
        self.commands: dict[str, list[tuple[str, str]]] = {}
        self.options: dict[str, list[tuple[str, str]]] = {}
        self.option_values: dict[tuple[str, str], list[str]] = {}
        self.positions: dict[str, list[list[str]]] = {}
        self.walk(reference["program"], "")

    def walk(self, command: dict, path: str) -> None:
        self.commands[path] = [(each["name"], each["help"]) for each in command["commands"]]
        self.options[path] = []
        for option in command["options"]:
            for name in option["names"]:
                if name == "-h":
                    continue
                self.options[path].append((name, option["help"]))
                if option["value"]:
                    self.option_values[(path, name)] = self.values(option, name.lstrip("-"))
        self.positions[path] = [self.values(position, position["position"]) for position in command["positions"]]
        for each in command["commands"]:
            self.walk(each, f"{path} {each['name']}".strip())

    def values(self, item: dict, name: str) -> list[str]:
        if item["values"]:
            return item["values"]
        name = name.lower()
        if name == "agent":
            return self.agents
        if name == "key":
            return list(self.settings)
        if name == "value":
            return [SETTING_VALUE]
        if name == "command":
            return [COMMAND]
        if item["value"] in PATH_WORDS:
            return [FILES]
        if name == "state":
            return ["on", "off"]
        return []

    def setting_values(self, key: str) -> list[str]:
        setting = self.settings[key]
        if setting.get("values"):
            return setting["values"]
        if setting["type"] == "boolean":
            return ["on", "off"]
        values = [setting.get("minimum"), setting["default"], setting.get("maximum")]
        return list(dict.fromkeys(value for value in values if value))


def relay_tables(reference: dict, document: str) -> tuple[list[tuple[str, str]], dict[str, list[str]]]:
    """The relay's long options with their meaning, and the values of those that have a fixed set."""
    options, values = [], {}
    for row in re.findall(r"(?m)^\| `(--[^`]+)` \|[^|]*\|([^|]*)\|$", document):
        name = row[0].split()[0]
        options.append((name, re.sub(r"[`;].*", "", row[1]).strip()))
    values["--agent"] = [agent for agent in reference["agents"] if agent != "custom"]
    values["--state"] = [state for state in reference["states"] if state != "unknown"]
    values["--cwd"] = values["--socket"] = [FILES]
    return options, values


def quoted(text: str) -> str:
    return "'" + text.replace("'", "'\\''") + "'"


def bash(tables: Tables, relay: tuple) -> str:
    lines = ["# SPDX-License-Identifier: Apache-2.0", "# bash completion for vimbrel and vimbrel-relay", "",
             "# What may follow: the commands below a command, its options, the values of options and positions.",
             "_vimbrel_table() {", "  case $1 in"]

    def case(key: str, words: list[str]) -> None:
        if words:
            lines.append(f"    {quoted(key)}) printf '%s\\n' {' '.join(words)} ;;")

    for path, commands in tables.commands.items():
        case(f"commands:{path}", [name for name, _ in commands])
        case(f"options:{path}", [name for name, _ in tables.options[path]])
        for index, words in enumerate(tables.positions[path]):
            case(f"position:{path}:{index}", words)
    for (path, option), words in tables.option_values.items():
        # An option without known values is listed too: the word after it is its value.
        lines.append(f"    {quoted(f'value:{path}:{option}')}) printf '%s\\n' {' '.join(words) or '@any'} ;;")
    for key in tables.settings:
        case(f"setting:{key}", tables.setting_values(key))
    options, values = relay
    case("options:relay", [name for name, _ in options])
    for option, words in values.items():
        case(f"value:relay:{option}", words)
    lines += ["  esac", "}", """
_vimbrel_offer() {
  local current=$1 key=$2 words
  words=$(printf '%s\\n' "${@:3}")
  case $words in
    @files) mapfile -t COMPREPLY < <(compgen -f -- "$current"); compopt -o filenames 2>/dev/null; return ;;
    @command) mapfile -t COMPREPLY < <(compgen -c -- "$current"); return ;;
    @setting) words=$(_vimbrel_table "setting:$key") ;;
    @any) return ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

_vimbrel() {
  local current=${COMP_WORDS[COMP_CWORD]} path='' previous='' words index position=0 last=''
  COMPREPLY=()
  for ((index = 1; index < COMP_CWORD; index++)); do
    local word=${COMP_WORDS[index]}
    if [[ $word == -- ]]; then
      _vimbrel_offer "$current" '' @command
      return
    fi
    if [[ -n $previous ]]; then
      previous=''
    elif [[ $word == -* ]]; then
      [[ -z $(_vimbrel_table "value:$path:$word") ]] || previous=$word
    elif _vimbrel_table "commands:$path" | grep -qxF -- "$word"; then
      path=${path:+$path }$word
    else
      position=$((position + 1))
      last=$word
    fi
  done
  if [[ -n $previous ]]; then
    _vimbrel_offer "$current" "$last" "$(_vimbrel_table "value:$path:$previous")"
  elif [[ $current == -* ]]; then
    _vimbrel_offer "$current" '' "$(_vimbrel_table "options:$path")"
  else
    words=$(_vimbrel_table "commands:$path")
    [[ -n $words ]] || words=$(_vimbrel_table "position:$path:$position")
    [[ -z $words ]] || _vimbrel_offer "$current" "$last" "$words"
  fi
}

_vimbrel_relay() {
  local current=${COMP_WORDS[COMP_CWORD]} words
  COMPREPLY=()
  words=$(_vimbrel_table "value:relay:${COMP_WORDS[COMP_CWORD - 1]}")
  [[ -n $words ]] || words=$(_vimbrel_table options:relay)
  _vimbrel_offer "$current" '' "$words"
}

complete -F _vimbrel vimbrel
complete -F _vimbrel_relay vimbrel-relay"""]
    return "\n".join(lines) + "\n"


def zsh(tables: Tables, relay: tuple) -> str:
    def described(pairs: list[tuple[str, str]]) -> str:
        return " ".join(quoted(f"{name}:{text}") for name, text in pairs)

    lines = ["#compdef vimbrel vimbrel-relay", "# SPDX-License-Identifier: Apache-2.0", "",
             "_vimbrel_words() {", "  # The array `reply`: what may stand at this place, each with its meaning.",
             "  reply=()", "  case $1 in"]

    def case(key: str, words: list[str] | list[tuple[str, str]]) -> None:
        if words:
            text = described(words) if isinstance(words[0], tuple) else " ".join(quoted(word) for word in words)
            lines.append(f"    {quoted(key)}) reply=({text}) ;;")

    help_of = {key: setting["help"] for key, setting in tables.settings.items()}

    def with_help(words: list[str]) -> list:
        return [(word, help_of[word]) for word in words] if words and all(word in help_of for word in words) else words

    for path, commands in tables.commands.items():
        case(f"commands:{path}", commands)
        case(f"options:{path}", tables.options[path])
        for index, words in enumerate(tables.positions[path]):
            case(f"position:{path}:{index}", with_help(words))
    for (path, option), words in tables.option_values.items():
        case(f"value:{path}:{option}", words or ["@any"])
    for key in tables.settings:
        case(f"setting:{key}", tables.setting_values(key))
    options, values = relay
    case("options:relay", options)
    for option, words in values.items():
        case(f"value:relay:{option}", words)
    lines += ["  esac", "}", """
_vimbrel_offer() {
  local key=$1
  case $reply[1] in
    @files) _files; return ;;
    @command) _command_names -e; return ;;
    @setting) _vimbrel_words "setting:$key" ;;
    @any) _message value; return ;;
  esac
  (( $#reply )) && _describe -t values value reply
}

_vimbrel() {
  local -a reply
  local word previous='' path_='' last=''
  local -i index position=0
  if [[ $service == vimbrel-relay ]]; then
    _vimbrel_words "value:relay:${words[CURRENT-1]}"
    (( $#reply )) || _vimbrel_words options:relay
    _vimbrel_offer ''
    return
  fi
  for (( index = 2; index < CURRENT; index++ )); do
    word=$words[index]
    if [[ $word == -- ]]; then
      _command_names -e
      return
    elif [[ -n $previous ]]; then
      previous=''
    elif [[ $word == -* ]]; then
      _vimbrel_words "value:${path_}:${word}"
      (( $#reply )) && previous=$word
    else
      _vimbrel_words "commands:${path_}"
      if (( ${reply[(I)${word}:*]} )); then
        path_=${path_:+$path_ }$word
      else
        position+=1
        last=$word
      fi
    fi
  done
  if [[ -n $previous ]]; then
    _vimbrel_words "value:${path_}:${previous}"
  elif [[ $words[CURRENT] == -* ]]; then
    _vimbrel_words "options:${path_}"
  else
    _vimbrel_words "commands:${path_}"
    (( $#reply )) || _vimbrel_words "position:${path_}:${position}"
  fi
  _vimbrel_offer "$last"
}

_vimbrel "$@\""""]
    return "\n".join(lines) + "\n"


def fish(tables: Tables, relay: tuple) -> str:
    lines = ["# SPDX-License-Identifier: Apache-2.0", "# fish completion for vimbrel", "",
             "# True when exactly these commands stand on the line, and so many other words after them (any, if not said).",
             "function __vimbrel_at",
             "    set -l wanted (string split -n ' ' -- $argv[1])",
             "    set -l commands (string split -n ' ' -- $argv[3])",
             "    set -l words",
             "    for word in (commandline -opc)[2..]",
             "        string match -q -- '-*' $word; or set -a words $word",
             "    end",
             "    set -l depth (count $wanted)",
             "    test (count $words) -ge $depth; or return 1",
             "    if test $depth -gt 0",
             "        test \"$words[1..$depth]\" = \"$wanted\"; or return 1",
             "    end",
             "    # A command below this one takes over.",
             "    if test (count $words) -gt $depth; and contains -- $words[(math $depth + 1)] $commands",
             "        return 1",
             "    end",
             "    test -z \"$argv[2]\"; or test (count $words) -eq (math $depth + $argv[2])",
             "end", "",
             "function __vimbrel_setting_values",
             "    switch (commandline -opc)[-1]"]
    for key in tables.settings:
        lines += [f"        case {key}", f"            printf '%s\\n' {' '.join(tables.setting_values(key))}"]
    lines += ["    end", "end", "", "complete -c vimbrel -f"]

    def fish_quoted(text: str) -> str:
        return "'" + text.replace("\\", "\\\\").replace("'", "\\'") + "'"

    help_of = {key: setting["help"] for key, setting in tables.settings.items()}
    for path, commands in tables.commands.items():
        below = " ".join(name for name, _ in commands)
        condition = fish_quoted(f'__vimbrel_at "{path}" "" "{below}"')
        for name, text in commands:
            only = fish_quoted(f'__vimbrel_at "{path}" 0 "{below}"')
            lines.append(f"complete -c vimbrel -n {only} -a {name} -d {fish_quoted(text)}")
        for name, text in tables.options[path]:
            line = f"complete -c vimbrel -n {condition} -l {name.lstrip('-')} -d {fish_quoted(text)}"
            if not name.startswith("--"):
                line = line.replace(" -l ", " -s ", 1)
            words = tables.option_values.get((path, name))
            if words == [FILES]:
                line += " -r -F"
            elif words is not None:
                line += " -x" + (f" -a {fish_quoted(' '.join(words))}" if words else "")
            lines.append(line)
        for index, words in enumerate(tables.positions[path]):
            at = fish_quoted(f'__vimbrel_at "{path}" {index} "{below}"')
            if words == [SETTING_VALUE]:
                lines.append(f"complete -c vimbrel -n {at} -a '(__vimbrel_setting_values)'")
            elif words == [COMMAND]:
                lines.append(f"complete -c vimbrel -n {at} -a '(__fish_complete_command)'")
            elif words == [FILES]:
                lines.append(f"complete -c vimbrel -n {at} -F")
            elif words and all(word in help_of for word in words):
                lines += [f"complete -c vimbrel -n {at} -a {word} -d {fish_quoted(help_of[word])}" for word in words]
            elif words:
                lines.append(f"complete -c vimbrel -n {at} -a {fish_quoted(' '.join(words))}")
    options, values = relay
    lines += ["", "complete -c vimbrel-relay -f"]
    for name, text in options:
        words = values.get(name, [])
        line = f"complete -c vimbrel-relay -l {name.lstrip('-')} -d {fish_quoted(text)}"
        if words == [FILES]:
            line += " -r -F"
        elif name != "--help":
            line += " -x" + (f" -a {fish_quoted(' '.join(words))}" if words else "")
        lines.append(line)
    return "\n".join(lines) + "\n"


def main() -> int:
    reference = json.loads(pathlib.Path(sys.argv[1]).read_text(encoding="utf-8"))
    document = pathlib.Path(sys.argv[2]).read_text(encoding="utf-8")
    output = pathlib.Path(sys.argv[3])
    tables, relay = Tables(reference), relay_tables(reference, document)
    output.mkdir(parents=True, exist_ok=True)
    (output / "vimbrel.bash").write_text(bash(tables, relay), encoding="utf-8")
    (output / "_vimbrel").write_text(zsh(tables, relay), encoding="utf-8")
    (output / "vimbrel.fish").write_text(fish(tables, relay), encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main())
