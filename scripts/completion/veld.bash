# bash completion for veld: its subcommands, their options, the `show` topics and files.
_veld() {
   local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
   local cmd="" w
   for w in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
      case $w in run | demo | check | show | switchover) cmd=$w; break ;; esac
   done
   case $prev in
      --config) COMPREPLY=($(compgen -f -- "$cur")); return ;;
      --run-dir) COMPREPLY=($(compgen -d -- "$cur")); return ;;
      --trace | --ring-log-level | --namespace-prefix) return ;;
   esac
   local words
   case $cmd in
      "") words="run demo check show switchover --help" ;;
      run) words="--config --run-dir --trace --ring-log-level --namespace-prefix --help" ;;
      demo) words="--config --trace --help" ;;
      check)
         [[ $cur == -* ]] || { COMPREPLY=($(compgen -f -- "$cur")); return; }
         words="--help"
         ;;
      show)
         words="interfaces vrfs backlog config routing-agents nexthops ip6-enable multicast"
         words+=" --vrf --json --run-dir --help"
         ;;
      switchover) words="--clear --run-dir --help" ;;
   esac
   COMPREPLY=($(compgen -W "$words" -- "$cur"))
}
complete -o filenames -F _veld veld
