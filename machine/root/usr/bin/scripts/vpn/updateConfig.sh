#!/bin/sh
# Stands in for the VPN's: takes name, password and key.
