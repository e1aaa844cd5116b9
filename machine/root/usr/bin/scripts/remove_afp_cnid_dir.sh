#!/bin/sh
# remove_afp_cnid_dir.sh NAME: of a volume that is no more.
exec rm -r "/var/netatalk/CNID/$1"
