# bash completion for dravelctl(1)                                         -*- shell-script -*-

_dravelctl_ids() { # _dravelctl_ids list | holidays list
  dravelctl "$@" 2>/dev/null | awk 'NR > 1 { print $1 }'
}

_dravelctl() {
  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]} words='' command=''
  local before='' word
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    [[ $word == -* || $before == -t || $before == --timeout ]] || { command=$word; break; }
    before=$word
  done
  case $command:$prev in
    *:--type) words='on off standby announce always transient-off announce-12 replacing ambient-on ambient-off
      wake-5 wake-20 wake-28 wake-33 wake-36 wake-74 wake-99' ;;
    *:--on) words='daily weekdays weekend mon tue wed thu fri sat sun' ;;
    *:--holidays) words='skip ignore' ;;
    *:--clock) words='broadcast internet rtc' ;;
    *:--at | *:--priority | *:--count | *:-n | *:--timeout | *:-t) ;;
    :*) words='list show add cancel halt holidays wakeup backup restore monitor
      --help --version --timeout' ;;
    list:* | wakeup:*) words='--json --help' ;;
    show:* | cancel:*)
      words="$(_dravelctl_ids list) --help"
      [ "$command" = cancel ] || words+=' --json' ;;
    add:*) words='--at --on --type --priority --holidays --clock --json --help' ;;
    halt:*) words='on off none --help' ;;
    holidays:holidays) words='list add remove skip ignore' ;;
    holidays:remove) words=$(_dravelctl_ids holidays list) ;;
    holidays:skip | holidays:ignore) words=$(_dravelctl_ids list) ;;
    holidays:list) words='--json --help' ;;
    holidays:*) words='--end-of-february --help' ;;
    backup:* | restore:*)
      mapfile -t COMPREPLY < <(compgen -d -- "$cur")
      compopt -o filenames
      return ;;
    monitor:*) words='--count --help' ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$cur")
}

complete -F _dravelctl dravelctl
