#!/bin/sh
# Runs a command as a fresh boot would see it: an IPC namespace and a
# /var/lock of its own, where the machine allows them, so that the table it
# makes is gone with it.
if unshare --ipc --mount true 2>/dev/null; then
  exec unshare --ipc --mount --propagation private sh -c \
    'mount -t tmpfs kovtest "$(readlink -f /var/lock)" && exec "$@"' isolated "$@"
fi
exec "$@"
