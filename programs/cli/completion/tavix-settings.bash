# Completion of tavix-settings for bash. The program itself knows what a word may become.

# Puts descriptions behind the words that bash lists, in a column.
_tavix_settings_describe() {
  local i width=0 room
  for i in "${!words[@]}"; do
    ((${#COMPREPLY[i]} > width)) && width=${#COMPREPLY[i]}
  done
  for i in "${!words[@]}"; do
    [[ ${descriptions[i]} ]] || continue
    room=$((${COLUMNS:-80} - width - 4))
    ((room > 0)) && printf -v 'COMPREPLY[i]' '%-*s  (%s)' "$width" "${COMPREPLY[i]}" "${descriptions[i]::room}"
  done
}

_tavix_settings() {
  local word words=() descriptions=() lines line current head i
  # bash splits words at '=' and ':' too, and behind the '@' of a checkpoint; the program wants them whole.
  for word in "${COMP_WORDS[@]:1:COMP_CWORD}"; do
    if ((${#words[@]} > 0)) && [[ $word == [=:]* || ${words[-1]} == *[=:] || ${words[-1]} == @ ]]; then
      words[-1]+=$word
    else
      words+=("$word")
    fi
  done
  # They are as they were typed; an opening quote alone is left to the program.
  for i in "${!words[@]}"; do
    case ${words[i]} in
      \'*\' | \"*\") words[i]=${words[i]:1:-1} ;;
      [\'\"]*) ;;
      *) words[i]=${words[i]//\\/} ;;
    esac
  done
  mapfile -t lines < <("${COMP_WORDS[0]}" __complete "${words[@]}" 2>/dev/null)
  COMPREPLY=()
  current=${words[-1]}
  head=${current%"${current##*[=:]}"}
  if [[ $COMP_WORDBREAKS == *@* && $current == @* ]]; then head=@; fi
  words=()
  for line in "${lines[@]}"; do
    if [[ $line == $'\tfiles' ]]; then
      compopt -o default 2>/dev/null # bash's own, of files
      continue
    fi
    word=${line%%$'\t'*}
    words+=("$word")
    descriptions+=("${line:${#word}+1}")
    # Behind a quote nothing splits words: what is replaced is all that stands there.
    [[ $current == [\'\"]* ]] || printf -v word '%q' "${word:${#head}}"
    COMPREPLY+=("$word")
  done
  # There is more to come behind a path.
  if ((${#words[@]} == 1)) && [[ ${words[0]} == */ ]]; then compopt -o nospace 2>/dev/null; fi
  # 33, 63 and 64: bash shows a list, and does not take it for what is to be typed.
  case ${COMP_TYPE:-9} in 33 | 63 | 64) ((${#words[@]} > 1)) && _tavix_settings_describe ;; esac
}

complete -F _tavix_settings tavix-settings
