# Sourced by every script that runs Wine: one prefix, quiet, and without the Mono and Gecko
# installers that a new prefix would otherwise offer.
#   prefix=<wine prefix>; . testing/wine-vars.sh
export WINEPREFIX="$prefix" WINEDEBUG="${WINEDEBUG:--all}" WINEDLLOVERRIDES="mscoree=;mshtml="
