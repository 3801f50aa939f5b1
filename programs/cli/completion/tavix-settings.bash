# Completion of tavix-settings for bash. The program itself knows what a word may become.

_tavix_settings() {
  local word words=() candidates current head i
  # bash splits words at '=' and ':' too; the program wants them whole.
  for word in "${COMP_WORDS[@]:1:COMP_CWORD}"; do
    if ((${#words[@]} > 0)) && [[ $word == [=:]* || ${words[-1]} == *[=:] ]]; then
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
  mapfile -t candidates < <("${COMP_WORDS[0]}" __complete "${words[@]}" 2>/dev/null)
  COMPREPLY=()
  current=${words[-1]}
  if [[ $current == [\'\"]* ]]; then
    # Behind a quote nothing splits words: what is replaced is all that stands there.
    COMPREPLY=("${candidates[@]}")
    return
  fi
  head=${current%"${current##*[=:]}"}
  for word in "${candidates[@]}"; do
    COMPREPLY+=("$(printf '%q' "${word:${#head}}")")
  done
}

complete -o default -F _tavix_settings tavix-settings
