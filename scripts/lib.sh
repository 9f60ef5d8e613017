# Shared argument handling of the scripts in this folder (sourced, not run).

# Sets SANITIZE, COVERAGE, BUILD_DIR and BUILD_TYPE from --sanitize=…, --coverage and
# --build-dir DIR; a sanitizer or coverage build gets a directory of its own so it never mixes
# objects with the plain build.
parse_build_args() {
  SANITIZE=""
  COVERAGE=""
  BUILD_DIR="${HADRIX_BUILD_DIR:-}"
  BUILD_TYPE="RelWithDebInfo"
  while (($#)); do
    case "$1" in
      --sanitize=*) SANITIZE="${1#--sanitize=}" ;;
      --coverage) COVERAGE=1 ;;
      --build-dir) BUILD_DIR="$2"; shift ;;
      --build-dir=*) BUILD_DIR="${1#--build-dir=}" ;;
      *) echo "unknown argument: $1" >&2; exit 2 ;;
    esac
    shift
  done
  if [ -z "$BUILD_DIR" ]; then
    case "$SANITIZE" in
      "") BUILD_DIR="build"; [ -n "$COVERAGE" ] && BUILD_DIR="build-cov" ;;
      thread) BUILD_DIR="build-tsan" ;;
      *) BUILD_DIR="build-asan" ;;
    esac
  fi
  [ -n "$SANITIZE" ] || [ -n "$COVERAGE" ] && BUILD_TYPE="Debug"
  export HADRIX_BUILD_DIR="$(cd "$(dirname "$BUILD_DIR")" && pwd)/$(basename "$BUILD_DIR")"
  BUILD_DIR="$HADRIX_BUILD_DIR"
}

# The Debian packages that building and testing hadrix need.
HADRIX_PACKAGES=(
  cmake ninja-build g++ pkg-config gettext
  libglib2.0-dev libglib2.0-bin libasound2-dev libudev-dev libjsoncpp-dev libsystemd-dev
  libgtest-dev
  dbus python3 python3-gi python3-dbus python3-dbusmock python3-pytest python3-pytest-timeout
  python3-pytest-xdist gcovr
  umockdev libumockdev-dev gir1.2-umockdev-1.0 faketime libfaketime locales
  dpkg-dev systemd util-linux
)

# Installs those of the given Debian packages that are missing (apt-get; sudo when not root).
ensure_packages() {
  local missing=() pkg
  for pkg in "$@"; do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed' || missing+=("$pkg")
  done
  ((${#missing[@]})) || return 0
  echo "installing ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
}
