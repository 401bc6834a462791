#!/bin/sh
# Makes the manual page from the one that Doxygen made of the header: manual.sh PAGE README
set -eu
page=$1
readme=$2

# Its name, and what apropos says of it and of each function.
sed -n '1s/"tn_corvel.h"/tn_corvel/p' "$page"
cat <<'END'
.ad l
.nh
.SH NAME
tn_corvel \- access to Corvel USB-to-CAN adapters
.br
corvel_initDLL \- configure a Corvel adapter, bring it up and open it
.br
corvel_freeDLL \- close a Corvel adapter and take it down
.br
corvel_writeMessage \- send one CAN frame through a Corvel adapter
.br
corvel_readMessage \- wait for one CAN frame from a Corvel adapter
.SH SYNOPSIS
.B #include <tn_corvel.h>
.PP
.B cc program.c $(pkg-config \-\-cflags \-\-libs tn_corvel)
END

# What the header says; newer groff has no font C.
sed -e '1,/^\.SH SYNOPSIS/d' -e '/^\.SH "Author"/,$d' -e 's/\\fC/\\fB/g' "$page"

cat <<'END'
.SH ENVIRONMENT
The stand-in for the log library reads these when the library is loaded.
.TP
.B PELID_LOG_LEVEL
The lowest level written: 2 progress, 3 requests refused, 4 failures; 0 writes nothing. The default
is 3.
.SH EXAMPLE
.nf
END
sed -n '/^```c$/,/^```$/{/^```/d; s/\\/\\e/g; p}' "$readme"
cat <<'END'
.fi
.SH "SEE ALSO"
.BR simcan (1),
.BR ip (8),
.BR sudo (8),
.BR candump (1)
.PP
/usr/share/doc/libtn-corvel-dev has examples, and the files docs/*.md that are named here. In Python,
corvel_can is an interface of python-can:
.BR pydoc3 " corvel_can."
END
