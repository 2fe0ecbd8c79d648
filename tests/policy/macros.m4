dnl SPDX-License-Identifier: Apache-2.0
dnl each(MACRO, NAME...): expands MACRO(NAME) for each name.
define(`each', `$1(`$2')ifelse(`$#', `2', `', `each(`$1', shift(shift($@)))')')
dnl The macros of a platform that android/sepolicy uses.
define(`domain_auto_trans', `
allow $1 $2:file { execute getattr map open read };
allow $1 $3:process { siginh rlimitinh transition };
dontaudit $1 $3:process noatsecure;
allow $3 $1:process sigchld;
allow $3 $2:file { entrypoint execute getattr map open read };
type_transition $1 $2:process $3;
')
define(`init_daemon_domain', `domain_auto_trans(init, $1_exec, $1)')
define(`userdebug_or_eng', ifelse(target_build_variant, `user', `', `$1'))
