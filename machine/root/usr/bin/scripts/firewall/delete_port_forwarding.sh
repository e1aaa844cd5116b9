#!/bin/sh
# delete_port_forwarding.sh ZONE SLOT: succeeds where there is none. Connections that came through it go on.
exec nft "add table ip forward_$1_$2; delete table ip forward_$1_$2"
