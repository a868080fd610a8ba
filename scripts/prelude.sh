# shellcheck shell=bash
# Sourced by bash before all else: a script ends where something fails, and runs at the root of the
# sources.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
