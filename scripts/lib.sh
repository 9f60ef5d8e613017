# Shared argument handling of the scripts in this folder (sourced, not run).

# Sets SANITIZE, BUILD_DIR and BUILD_TYPE from --sanitize=… and --build-dir DIR; a sanitizer
# build gets a directory of its own so it never mixes objects with the plain build.
parse_build_args() {
  SANITIZE=""
  BUILD_DIR="${HADRIX_BUILD_DIR:-}"
  BUILD_TYPE="RelWithDebInfo"
  while (($#)); do
    case "$1" in
      --sanitize=*) SANITIZE="${1#--sanitize=}" ;;
      --build-dir) BUILD_DIR="$2"; shift ;;
      --build-dir=*) BUILD_DIR="${1#--build-dir=}" ;;
      *) echo "unknown argument: $1" >&2; exit 2 ;;
    esac
    shift
  done
  if [ -z "$BUILD_DIR" ]; then
    case "$SANITIZE" in
      "") BUILD_DIR="build" ;;
      thread) BUILD_DIR="build-tsan" ;;
      *) BUILD_DIR="build-asan" ;;
    esac
  fi
  [ -n "$SANITIZE" ] && BUILD_TYPE="Debug"
  export HADRIX_BUILD_DIR="$(cd "$(dirname "$BUILD_DIR")" && pwd)/$(basename "$BUILD_DIR")"
  BUILD_DIR="$HADRIX_BUILD_DIR"
}
