#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# lnav takes the description of the stored forms, the argument, and finds levels, times and tags in sections of all
# of them, and in what logview prints with dates.
set -eu
command -v lnav >/dev/null || { echo "lnav is not installed: left out"; exit 77; }
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
export HOME=$home XDG_CONFIG_HOME=$home/.config TMPDIR=$home TZ=UTC
found() { # TABLE FILE
    lnav -n "$2" -c ";SELECT log_time, log_level, tag, pid, tid, log_body FROM $1" -c ':write-csv-to -' |
        sed '1d; s/<NULL>//g'
}
lnav -i "$1" >/dev/null
lnav -C
cat >"$home/log_1.txt" <<'END'
32:00.770  1234  5678 I Tag     : cut
<12>[   12.345678] level
--------- 12 lines lost here: full
11-23 14:40:55.123  1234  5678 E Cam era : a: (2): b
[   13.345678] none
11-23 14:40:56.123 W/Tag     ( 1234): c
--------- beginning of /dev/log_main
[ 11-23 14:40:57.123  1234: 5678 F/LongTag  ]
d

I/Brief   ( 1234): e
V/TagTagTag: f (12): g
D( 1234) h  (Process)
W( 1234: 5678) i
END
sed 's/^/2026-11-23T14:40:59.000+01:00~/; 10s/~$/~raw/' "$home/log_1.txt" >"$home/dated"
touch -d 2026-11-24T00:00:00Z "$home/log_1.txt"
gzip "$home/log_1.txt"
found vnlog_log "$home/log_1.txt.gz" >"$home/stored"
diff - "$home/stored" <<'END'
1970-01-01 00:00:03.000,info,,,,32:00.770  1234  5678 I Tag     : cut
1970-01-01 00:00:12.345,warning,,,,level
1970-01-01 00:00:12.345,notice,,,,12 lines lost here: full
2026-11-23 14:40:55.123,error,Cam era,1234,5678,a: (2): b
2026-11-23 14:40:55.123,info,,,,none
2026-11-23 14:40:56.123,warning,Tag,1234,,c
2026-11-23 14:40:56.123,notice,,,,beginning of /dev/log_main
2026-11-23 14:40:57.123,fatal,LongTag,1234,5678,"d
"
2026-11-24 00:00:00.000,info,Brief,1234,,e
2026-11-24 00:00:00.000,trace,TagTagTag,,,f (12): g
2026-11-24 00:00:00.000,debug,Process,1234,,h
2026-11-24 00:00:00.000,warning,,1234,5678,i
END
# With dates each line is one of its own, and what is behind the time is the same.
found vnlog_iso_log "$home/dated" >"$home/iso"
diff <(sed 's/^[^,]*,/2026-11-23 14:40:59.000,/; s/"d$/\n2026-11-23 14:40:59.000,info,,,,d/; s/^"$/2026-11-23 14:40:59.000,info,,,,raw/' "$home/stored") "$home/iso"
