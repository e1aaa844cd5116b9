#!/bin/sh -e
# set_auth_key.sh KEY: the one key that may log in, possibly none.
umask 077
mkdir -p /root/.ssh
echo "$1" >/root/.ssh/authorized_keys
