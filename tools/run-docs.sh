#!/usr/bin/env bash
# Builds the HTML reference of the public headers with Doxygen into
# build/docs/html (or DIR/html).  Fails on any warning, among them a
# declaration without a comment.
set -euo pipefail
cd "$(dirname "$0")/.."
command -v doxygen >/dev/null || bash tools/install-deps.sh
export ZEL_DOCS_DIR=${1:-build/docs}
mkdir -p "$ZEL_DOCS_DIR"
doxygen Doxyfile
echo "reference: $ZEL_DOCS_DIR/html/index.html"
