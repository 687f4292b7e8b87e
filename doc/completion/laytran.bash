# bash completion for laytran (the subcommands and their long options; the
# classic single-letter options after a first word beginning with '-').
_laytran() {
    local cur prev words cword
    _init_completion 2>/dev/null || {
        cur=${COMP_WORDS[COMP_CWORD]}
        prev=${COMP_WORDS[COMP_CWORD - 1]}
        cword=$COMP_CWORD
    }
    local commands="convert info check view svg help"
    local formats_in="cli slc ssl"
    local formats_out="cli cli-binary cli-long cli-short cli-aligned cli-aligned-short slc ssl"

    if [[ $cword -eq 1 ]]; then
        if [[ $cur == -* ]]; then
            COMPREPLY=($(compgen -W "--help --version -f -o -F -O -P -R -U -V -W -H" -- "$cur"))
        else
            COMPREPLY=($(compgen -W "$commands" -- "$cur"))
        fi
        return
    fi
    local command=${COMP_WORDS[1]}
    case $prev in
    --from) COMPREPLY=($(compgen -W "$formats_in" -- "$cur")); return ;;
    --to) COMPREPLY=($(compgen -W "$formats_out" -- "$cur")); return ;;
    --progress) COMPREPLY=($(compgen -W "auto always never" -- "$cur")); return ;;
    --units) COMPREPLY=($(compgen -W "mm cm meters inches feet mils microns" -- "$cur")); return ;;
    --memory | --layer | --z) return ;;
    -o | --output) [[ $command != -* ]] && { COMPREPLY=($(compgen -f -- "$cur")); return; } ;;
    -F) COMPREPLY=($(compgen -W "C F S" -- "$cur")); return ;;
    -O) COMPREPLY=($(compgen -W "A a b s as S F" -- "$cur")); return ;;
    esac
    local options
    case $command in
    convert) options="--from --to --units --move-positive --reverse --force --memory --progress --quiet --verbose --help" ;;
    info) options="--json --layers --from --progress --quiet --verbose --help" ;;
    check) options="--from --progress --quiet --verbose --help" ;;
    view) options="-o --output --from --force --progress --quiet --verbose --help" ;;
    svg) options="--layer --z -o --output --from --force --progress --quiet --verbose --help" ;;
    help) COMPREPLY=($(compgen -W "$commands" -- "$cur")); return ;;
    -*) options="-f -o -F -O -P -R -U -V -W -H" ;;
    esac
    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W "$options" -- "$cur"))
    else
        COMPREPLY=($(compgen -f -- "$cur"))
    fi
}
complete -o filenames -F _laytran laytran
