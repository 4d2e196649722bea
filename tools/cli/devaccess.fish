function __devaccess_choices
    set -l words (commandline -opc) (commandline -ct)
    set -l found (devaccess --complete $words[2..] 2>/dev/null)
    if test "$found" = :paths
        __fish_complete_path (commandline -ct)
    else
        printf '%s\n' $found
    end
end
complete -c devaccess -f -a '(__devaccess_choices)'
