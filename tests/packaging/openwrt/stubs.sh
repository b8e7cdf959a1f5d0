# Stand-ins for what /etc/rc.common gives an OpenWrt init script: the UCI
# readers of /lib/functions.sh (same semantics: an empty option gives the
# default; booleans accept 1/on/true/yes/enabled and their opposites) and the
# procd calls of /lib/functions/procd.sh and rc.common (and chgrp), which
# here only record their arguments, one call a line, each argument in
# brackets, into $PROCD_LOG.
# $UCI_DIR holds the UCI files; procd_running answers $ZOR_TEST_RUNNING.
# shellcheck shell=dash

# A UCI file is shell syntax: its 'config' and 'option' lines run as commands.
config() { UCI_SECTION=$2; }
option() { eval "CONFIG_${UCI_SECTION}_$1=\$2"; }
# shellcheck source=/dev/null
config_load() { . "$UCI_DIR/$1"; }
config_get() { eval "$1=\${CONFIG_$2_$3:-\$4}"; }
config_get_bool() {
	local v
	config_get v "$2" "$3" "$4"
	case "$v" in
	1 | on | true | yes | enabled) v=1 ;;
	0 | off | false | no | disabled) v=0 ;;
	*) v=$4 ;;
	esac
	eval "$1=\$v"
}

record() {
	{
		printf '%s' "$1"
		shift
		for a in "$@"; do printf ' [%s]' "$a"; done
		echo
	} >> "$PROCD_LOG"
}
procd_open_instance() { record open_instance "$@"; }
procd_set_param() { record set_param "$@"; }
procd_append_param() { record append_param "$@"; }
procd_close_instance() { record close_instance "$@"; }
procd_add_reload_trigger() { record reload_trigger "$@"; }
procd_send_signal() { record send_signal "$@"; }
# rc.common's wrapper that declares the service around its argument.
rc_procd() {
	record rc_procd "$1"
	"$@"
}
procd_running() {
	record running "$@"
	[ "$ZOR_TEST_RUNNING" = 1 ]
}
logger() { record logger "$@"; }
# The groups named in the tests need not exist here.
chgrp() { record chgrp "$@"; }
