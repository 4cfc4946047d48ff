# SPDX-License-Identifier: Apache-2.0
#
# Completion of powerstats and powerstatsd for bash. It asks the program for its subcommands, options and
# values (--help), so that it always fits the program.

_powerstats() {
    local IFS=$' \t\n' program=$1 cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    local subcommand= index help type
    # Bash makes a word of the "=" in "--option=value".
    if [ "$cur" = = ]; then
        cur=
    elif [ "$prev" = = ]; then
        prev=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    help=$("$program" --help 2>/dev/null </dev/null)
    for ((index = 1; index < COMP_CWORD; index++)); do
        subcommand=$(sed -nE "/^Subcommands:/,/^\$/s/^  (${COMP_WORDS[index]//[^a-z]/-}) .*/\1/p" <<<"$help")
        [ -z "$subcommand" ] || break
    done
    [ -z "$subcommand" ] || help=$("$program" "$subcommand" --help 2>/dev/null </dev/null)

    # The words after "--" are those of the command of `powerstats run`.
    for ((index++; index < COMP_CWORD; index++)); do
        [ "${COMP_WORDS[index]}" = -- ] || continue
        declare -F _command_offset >/dev/null && _command_offset $((index + 1))
        return
    done
    # The type of the option's value, such as FILE, TEXT:DIR=/sys or TEXT:{table,json}=table.
    case $cur:$prev in
        -*) ;;  # an option, even after one whose value may be left out
        *:-*) type=$(sed -nE "s/^  (-[a-z],)?${prev//[^-a-z]/}(,--[a-z]+)? ([A-Z]{3}.*)/\3/p" <<<"$help") ;;
    esac
    case $type in
        TEXT:DIR*)
            compopt -o filenames
            mapfile -t COMPREPLY < <(compgen -d -- "$cur") ;;
        FILE*)
            compopt -o filenames
            mapfile -t COMPREPLY < <(compgen -f -- "$cur") ;;
        TEXT:{*)
            type=${type#*\{}
            type=${type%%\}*}
            mapfile -t COMPREPLY < <(compgen -W "${type//,/ }" -- "$cur") ;;
        [A-Z]*) ;;  # a number or a text of the user's own
        *)
            mapfile -t COMPREPLY < <(compgen -W "$(sed -nE '/^(Options|Subcommands):/,/^$/{
                s/^  (-[a-z],)?(--[a-z]+).*/\2/p; s/^  ([a-z]+) .*/\1/p; }' <<<"$help")" -- "$cur") ;;
    esac
}
complete -F _powerstats powerstats powerstatsd
