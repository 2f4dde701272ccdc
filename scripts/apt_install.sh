# Sourced by the setup scripts: installs the Debian packages of its arguments
# that are not installed yet, and does nothing when all are.
#
#   apt_install_missing LABEL PACKAGE...
apt_install_missing() {
  local label=$1 p sudo=
  shift
  local missing=()
  for p in "$@"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
      missing+=("$p")
    fi
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "$label: installing ${missing[*]}"
  [ "$(id -u)" -ne 0 ] && sudo=sudo
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq || true
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
}
