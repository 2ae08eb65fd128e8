# bash completion for tesselune-store: subcommands, their options (read from the program's own
# --help, so they never go stale) and, for `mark` and `delete`, the entity names of the store the
# command line names (or the shared library's store), read with `tesselune-store inspect`.

_tesselune_store_options() {
  # Long options a --help text lists: "  --name ..." or "  -x,--name ...".
  "$1" "${@:2}" --help 2>/dev/null | sed -n 's/^ *\(-[A-Za-z], *\)\{0,1\}\(--[a-z][a-z-]*\).*/\2/p' | sort -u
}

_tesselune_store() {
  local cur prev program=${COMP_WORDS[0]}
  cur=${COMP_WORDS[COMP_CWORD]}
  prev=${COMP_WORDS[COMP_CWORD - 1]}

  case $prev in
    --store | --output)
      COMPREPLY=($(compgen -f -- "$cur"))
      return
      ;;
    --model)
      COMPREPLY=($(compgen -f -- "$cur"))
      return
      ;;
  esac

  # The subcommand, if one is given yet, and the global options before it.
  local i word subcommand="" subcommand_at=0 global=()
  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${COMP_WORDS[i]}
    case $word in
      --store | --model)
        global+=("$word" "${COMP_WORDS[i + 1]}")
        ((i++))
        ;;
      -*) ;;
      *)
        subcommand=$word
        subcommand_at=$i
        break
        ;;
    esac
  done

  if [[ -z $subcommand ]]; then
    if [[ $cur == -* ]]; then
      COMPREPLY=($(compgen -W "$(_tesselune_store_options "$program")" -- "$cur"))
    else
      local commands
      commands=$("$program" --help 2>/dev/null | sed -n '/^Subcommands:/,/^$/s/^  \([a-z][a-z-]*\).*/\1/p')
      COMPREPLY=($(compgen -W "$commands" -- "$cur"))
    fi
    return
  fi

  if [[ $cur == -* ]]; then
    COMPREPLY=($(compgen -W "$(_tesselune_store_options "$program" "$subcommand")" -- "$cur"))
    return
  fi
  # The entity: the first word after `mark` or `delete`.
  if [[ ($subcommand == mark || $subcommand == delete) && $COMP_CWORD -eq $((subcommand_at + 1)) ]]; then
    local entities
    entities=$("$program" "${global[@]}" inspect 2>/dev/null | sed -n 's/^  \([A-Za-z_][A-Za-z0-9_]*\) (Z_ENT .*/\1/p')
    COMPREPLY=($(compgen -W "$entities" -- "$cur"))
  fi
}

complete -F _tesselune_store tesselune-store
