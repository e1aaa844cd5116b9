#!/bin/sh
# getPortForwardingStatus.sh PORT RULE: fails where another rule forwards that port.
! nft list ruleset | grep -q "udp dport $1 .*dnat"
