# Shell functions that ./run, ./test and the scripts share; to be sourced by bash.

say() { printf '%s\n' "$*"; }
step() { printf '\n==> %s\n' "$*"; }
fail() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

# A JDK that the library can be built with: javac, and the headers of the native interface.
isJdk() { [ -x "$1/bin/javac" ] && [ -f "$1/include/jvmti.h" ]; }

# Prints the homes of the JDKs 17 and later on this machine, each once: JAVA_HOME first, then that
# of the javac on the path, then all below /usr/lib/jvm.
jdkHomes() {
  local home seen=" "
  for home in "${JAVA_HOME:-}" "$(dirname "$(dirname "$(readlink -f "$(command -v javac)")")")" \
      /usr/lib/jvm/*; do
    home=$(readlink -f "$home" || true)
    if [[ "$seen" != *" $home "* ]] && isJdk "$home" && [ "$(jdkMajor "$home")" -ge 17 ]; then
      printf '%s\n' "$home"
    fi
    seen+="$home "
  done
}

# The version of the JDK with this home, as its release file has it ("17.0.15").
jdkVersion() { sed -n 's/^JAVA_VERSION="\(.*\)"/\1/p' "$1/release"; }

# The number before the first dot of that version; 8 for the old style "1.8.0".
jdkMajor() {
  local version
  version=$(jdkVersion "$1")
  version=${version#1.}
  version=${version%%[!0-9]*}
  printf '%s\n' "${version:-0}"
}

isInstalled() {
  [ "$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

# Installs those of the named Debian packages that are not installed, and a headless JDK 17 when the
# machine has no JDK. Asks the package server for nothing when all is there.
ensurePackages() {
  local package missing=()
  for package in "$@"; do
    isInstalled "$package" || missing+=("$package")
  done
  [ -n "$(jdkHomes)" ] || missing+=(openjdk-17-jdk-headless)
  if [ ${#missing[@]} -eq 0 ]; then
    say "All packages are there"
    return
  fi
  [ "$(id -u)" -eq 0 ] || fail "missing packages; as root: apt-get install ${missing[*]}"
  say "Installing ${missing[*]} (takes some minutes)"
  quietly apt-get update -q
  quietly env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends \
    "${missing[@]}"
}

# Has CMake take from ccache, where it is installed, what was compiled before from the same sources, in
# whatever clone.
useCompilerCache() {
  command -v ccache >/dev/null || return 0
  say "Compiling with ccache"
  export CMAKE_CXX_COMPILER_LAUNCHER=ccache CCACHE_BASEDIR=$root CCACHE_NOHASHDIR=1
  export CCACHE_SLOPPINESS=pch_defines,time_macros
}

# Runs a command with its output in a file, which is shown only when the command fails.
quietly() {
  local log command="$*" result=0
  log=$(mktemp)
  "$@" >"$log" 2>&1 </dev/null || result=$?
  [ $result -eq 0 ] || tail -n 40 "$log" >&2
  rm -f "$log"
  [ $result -eq 0 ] || fail "failed ($result): ${command:0:200}"
}

# Prints the mirror that apt takes this machine's packages from, with a slash at its end.
mirror() {
  # shellcheck disable=SC2016  # apt-get expands it
  apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' 'Origin: Debian' |
    sed -n '/security/!{p;q}'
}
