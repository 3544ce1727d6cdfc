# Completion of kelrt for bash. Commands, options, operators and the names of their arguments are asked of the tool
# itself, so that they are those that it has.

# The options of a command, a line each: name, and TEXT or the like if it takes a value.
_kelrt_options() {
    "$1" "${@:2}" --help 2>/dev/null | sed -nE 's/^ +(-[^-],)?(--[a-z-]+)( ([A-Z]+)( .*)?)?.*/\2 \4/p'
}

_kelrt_words() {
    mapfile -t COMPREPLY < <(compgen -W "$1" -- "$2")
}

_kelrt_files() {
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen "$1" -- "$2")
}

_kelrt() {
    local tool=$1 cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    local options operand operands=() i operators
    COMPREPLY=()
    if [ "$COMP_CWORD" = 1 ]; then
        if [[ $cur == -* ]]; then
            _kelrt_words "$(_kelrt_options "$tool" | cut -d ' ' -f 1)" "$cur"
        else
            _kelrt_words "$("$tool" --help 2>/dev/null | sed -n '/^Subcommands:/,$s/^  \([a-z]*\) .*/\1/p')" "$cur"
        fi
        return
    fi
    local command=${COMP_WORDS[1]}
    options=$(_kelrt_options "$tool" "$command")
    for ((i = 2; i < COMP_CWORD; ++i)); do
        operand=${COMP_WORDS[i]}
        case $operand in
            -*) ! grep -q -- "^$operand [A-Z]" <<<"$options" || ((++i)) ;;
            *) operands+=("$operand") ;;
        esac
    done
    operators=$("$tool" ops 2>/dev/null | awk '$1 ~ /^[0-9]+$/ { print $2 }')

    case $prev in
        --out | --dump) _kelrt_files -d "$cur" ;;
        --report | --trace) _kelrt_files -f "$cur" ;;
        --log) _kelrt_words "debug warn err off" "$cur" ;;
        --only) _kelrt_words "$operators" "$cur" ;;
        --repeat | --index) ;;
        *)
            if [[ $cur == -* ]]; then
                _kelrt_words "$(cut -d ' ' -f 1 <<<"$options")" "$cur"
                return
            fi
            case $command in
                ops) [ ${#operands[@]} -gt 0 ] || _kelrt_words "$operators" "$cur" ;;
                op)
                    if [ ${#operands[@]} = 0 ]; then
                        _kelrt_words "$operators" "$cur"
                    elif [ "$cur" = = ] || [ "$prev" = = ]; then  # bash takes NAME=VALUE for three words
                        _kelrt_files -f "${cur#=}"
                    else
                        compopt -o nospace 2>/dev/null
                        _kelrt_words "$("$tool" ops "${operands[0]}" 2>/dev/null |
                            awk '$1 ~ /^[0-9]+$/ { print $2 "=" }')" "$cur"
                    fi
                    ;;
                *) _kelrt_files -f "$cur" ;;
            esac
            ;;
    esac
}
complete -F _kelrt kelrt
