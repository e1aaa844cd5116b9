#!/bin/sh -e
# set_port_forwarding.sh ZONE SLOT EXTERNAL-PORT PORT DESCRIPTION: from outside to the box itself. Each slot is a
# table, which is replaced whole.
slot=forward_$1_$2
nft -f - <<END
add table ip $slot
delete table ip $slot
table ip $slot {
    chain prerouting {
        type nat hook prerouting priority dstnat
        iifname "eth0" tcp dport $3 redirect to :$4 comment "$5"
    }
}
END
