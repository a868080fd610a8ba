# shellcheck shell=bash
# Every script sources this first. It ends the script when a command fails, and makes the root of the
# sources the current folder.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
