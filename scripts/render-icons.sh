#!/bin/sh
# Renders the application icon's PNG sizes from its SVG (run after changing the SVG; the PNGs are
# committed so that a build needs no SVG renderer). Needs rsvg-convert (Debian: librsvg2-bin).
set -eu
cd "$(dirname "$0")/../resources/icons"
for size in 16 22 24 32 48 64 128 256 512; do
    mkdir -p "hicolor/${size}x${size}"
    rsvg-convert -w "$size" -h "$size" com.tannerwick.backup.svg -o "hicolor/${size}x${size}/com.tannerwick.backup.png"
done
