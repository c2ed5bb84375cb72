#!/bin/sh
# Makes the manual page of a command-line program from its --help text, so that the page
# never tells something the program does not: manpage.sh PROGRAM NAME VERSION SUMMARY OUT.gz
set -eu
program=$1 name=$2 version=$3 summary=$4 out=$5
upper=$(printf '%s' "$name" | tr 'a-z' 'A-Z')
help=$("$program" --help)
{
    printf '.TH %s 1 "" "TarvoQC %s" "User Commands"\n' "$upper" "$version"
    printf '.SH NAME\n%s \\- %s\n' "$(printf '%s' "$name" | sed 's/-/\\-/g')" "$summary"
    printf '.SH DESCRIPTION\n.nf\n'
    # Backslashes and minus signs as troff wants them; a line starting with a dot or a quote
    # is text, not a request.
    printf '%s\n' "$help" | sed -e 's/\\/\\e/g' -e 's/-/\\-/g' -e "s/^\\([.']\\)/\\\\\\&\\1/"
    printf '.fi\n'
    cat <<'TAIL'
.SH FILES
.TP
.I TarvoQC.ini
The settings and, beside it in
.IR LogsQC/ ,
the daily log: in
.B $TARVOQC_HOME
when it is set; else in the program's folder for a portable copy (one that already has
its settings file there, or that does not live under a system prefix such as
.IR /usr );
else in
.IR $XDG_CONFIG_HOME/TarvoQC/ ,
by default
.IR ~/.config/TarvoQC/ .
.SH SEE ALSO
.BR tarvoqc (1),
.BR tarvoqc\-check (1),
.BR tarvoqc\-report (1),
.BR tarvoqc\-watch (1),
.BR tarvoqc\-watchd (1)
TAIL
} | gzip -9n > "$out"
