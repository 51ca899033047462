#!/usr/bin/env bash
# Installs the Debian 12 packages Plinkora needs.
#   scripts/install-deps.sh run    what building and running needs
#   scripts/install-deps.sh package  that, plus Debian's packaging tools (scripts/package.sh)
#   scripts/install-deps.sh test   all of the above, plus what the tests and benchmarks need
# Packages already installed are not fetched again; apt-get runs only when something is missing.
set -euo pipefail

build_and_run=(
    cmake g++ make pkg-config
    qt6-base-dev qt6-multimedia-dev libqt6opengl6-dev qt6-qpa-plugins qt6-wayland
    librtmidi-dev libjack-jackd2-dev libasound2-dev
    libspeechd-dev speech-dispatcher speech-dispatcher-espeak-ng
    libfluidsynth-dev timgm6mb-soundfont
    fonts-dejavu-core libxcb1-dev libxcb-xkb-dev libx11-dev
    qt6-tools-dev qt6-l10n-tools qt6-translations-l10n
)
packaging=(
    debhelper dpkg-dev fakeroot lintian desktop-file-utils appstream man-db
)
tests=(
    libgtest-dev libgmock-dev libbenchmark-dev
    jackd2 xvfb xauth xdotool x11-xkb-utils openbox
    dbus dbus-x11 at-spi2-core orca python3-pyatspi
    sox pulseaudio pulseaudio-utils speech-dispatcher-audio-plugins libao4
    x11-utils systemd util-linux procps libsm-dev libice-dev
    libxtst-dev x11-xserver-utils jack-keyboard
    clang libclang-rt-14-dev python3-xlib
    clang-format clang-tidy
    qt6-speech-dev qt6-declarative-dev
    sway libxkbcommon-tools
    pipewire pipewire-bin wireplumber pipewire-jack
)

packages=("${build_and_run[@]}")
case "${1:-test}" in
    run) ;;
    package) packages+=("${packaging[@]}") ;;
    *) packages+=("${packaging[@]}" "${tests[@]}") ;;
esac

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done
if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

echo "Installing: ${missing[*]}"
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
    sudo_cmd=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
