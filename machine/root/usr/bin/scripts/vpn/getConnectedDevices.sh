#!/bin/sh
# Stands in for the VPN's: nobody is connected.
