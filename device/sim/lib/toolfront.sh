# Sourced by the shell header of the device's tools (simtool.py, uci,
# kapri_util.lua) when the run directory has no front end of the tool yet
# (device/README.md, "Tool cost").  Inside a device it builds the front end
# (toolfront.c) with the host's C compiler into /simrun/.simtools, once per
# run directory and again when the source changes, and runs the call
# through it.  Without a compiler, on another machine than x86_64 or when
# the build fails (build.log), the calls run as their own Python programs
# under the tools' names, and the run directory is marked so
# (.simtools/no-front) for the calls after.  Outside a device, or with
# SIMDEVICE_RUN set, it returns and the header runs Python itself.
if [ -z "$SIMDEVICE_RUN" ] && [ -d /simrun ] && [ -d /simdevice/bin ]; then
  _t=/simrun/.simtools
  _f=${0##*/}
  [ -d "$_t/py" ] || mkdir -p "$_t/bin" "$_t/py" 2>/dev/null
  # the tool's names: its front end, and python3 for running it directly
  [ -L "$_t/py/$_f" ] || ln -s /usr/bin/python3 "$_t/py/$_f" 2>/dev/null
  [ -L "$_t/bin/$_f" ] || ln -s ../front "$_t/bin/$_f" 2>/dev/null
  # (no-front: this run directory gets none, its tools run as Python)
  if [ "$SIMDEVICE_TOOLSERVER" != 0 ] && [ ! -x "$_t/front" ] &&
     [ ! -e "$_t/no-front" ]; then
    if [ -x /usr/bin/cc ] && [ -x /usr/bin/flock ] &&
       [ "$(uname -m)" = x86_64 ]; then
      # one build at a time; a call that waited finds it done.  No C
      # library (toolfront.c): static, no start files, nothing that needs
      # the C library's start (stack protector) or calls it (loops the
      # compiler would make memcpy calls of).  Not optimised: every
      # device builds it, -O0 takes a fifth of the CPU -O2 does, and the
      # program does too little for it to show.
      /usr/bin/flock "$_t/build.lock" /usr/bin/busybox sh -c '
        t=$1
        [ -x "$t/front" ] && exit 0
        key=$(stat -c %s:%Y:%i /simdevice/lib/toolfront.c) &&
          TMPDIR=$t /usr/bin/cc -O0 -static -nostdlib -fno-pie -no-pie \
            -fno-stack-protector -fno-tree-loop-distribute-patterns \
            -fno-asynchronous-unwind-tables -DSOURCE_KEY="\"$key\"" \
            -o "$t/front.$$" /simdevice/lib/toolfront.c 2>>"$t/build.log" &&
          mv -f "$t/front.$$" "$t/front" && exit 0
        rm -f "$t/front.$$"
        : > "$t/no-front"' sh "$_t"
    else
      : > "$_t/no-front" 2>/dev/null
    fi
  fi
  if [ -x "$_t/bin/$_f" ]; then
    exec -a /usr/bin/python3 "$_t/bin/$_f" -S "$0" "$@"
  fi
  if [ -x "$_t/py/$_f" ]; then
    exec -a /usr/bin/python3 "$_t/py/$_f" -S "$0" "$@"
  fi
fi
return 0
