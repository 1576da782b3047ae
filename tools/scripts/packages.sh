# Sourced by the project's scripts: installs the Debian packages a script
# needs when any of them is missing, so that the scripts work on a fresh
# machine without a separate set-up step.

kelvo_missing_packages() {
  local pkg missing=()
  for pkg in "$@"; do
    if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed'; then
      missing+=("$pkg")
    fi
  done
  echo "${missing[@]}"
}

kelvo_ensure_packages() {
  local missing
  missing=$(kelvo_missing_packages "$@")
  [ -z "$missing" ] && return 0
  echo "Installing missing Debian packages: $missing"
  local sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  # shellcheck disable=SC2086
  $sudo apt-get install -y -qq --no-install-recommends $missing
}

# What building and testing the project needs; the CUPS server, its filters
# and Ghostscript are for the end-to-end test, which prints through a private
# cupsd, zint, zbar-tools and dmtx-utils for the barcode scan suite
# (tools/barcode-scan.sh), and Chromium, its driver and Selenium for the
# printer application's web interface test; PAM and avahi's client library
# for the printer application, ImageMagick for its pictures, and avahi-daemon, D-Bus, iproute2, curl and
# openssl for its tests on a network of their own; build-essential,
# debhelper, dpkg-dev and lintian for the Debian package test.
KELVO_BUILD_PACKAGES="cmake make g++ clang libclang-rt-14-dev pkg-config libgtest-dev libgmock-dev \
libbenchmark-dev libpng-dev libjpeg-dev zlib1g-dev libcups2-dev libcupsimage2-dev cups-ppdc cups-client cups cups-filters ghostscript \
libpappl-dev cups-ipp-utils python3 zint zbar-tools dmtx-utils chromium chromium-driver python3-selenium \
libpam0g-dev libavahi-client-dev avahi-daemon avahi-utils dbus iproute2 curl openssl \
build-essential debhelper dpkg-dev lintian imagemagick"
