# fish completion of hubctl's arguments: hubctl itself tells them, from what its help is made of.
function __hubctl_complete
    set -l words (commandline -opc) (commandline -ct)
    $words[1] complete $words[2..] 2>/dev/null
end
complete -c hubctl -f -a '(__hubctl_complete | string match --invert :files)'
complete -c hubctl -n '__hubctl_complete | string match --quiet :files' -F
