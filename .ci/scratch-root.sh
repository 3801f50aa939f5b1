# shellcheck shell=bash
# A root that has the files of some packages of Debian and nothing else of this machine, for checks of what is installed
# by people; they source it, and define fail.
#
# An ordinary user needs a kernel that gives namespaces to users; root can do without.

# The packages and what every Debian has, with all that these depend on.
list_packages() { # PACKAGE...
  local essential
  mapfile -t essential < <(dpkg-query -W -f '${Essential} ${Package}\n' | sed -n 's/^yes //p')
  apt-cache depends --recurse --installed --important "${essential[@]}" "$@" | sed -n '/^[a-z0-9]/p'
}

# Their files but for documents, and the links that their scripts make to alternatives. Links to what is not there lead
# nowhere.
list_files() { # PACKAGE...
  local link
  # Virtual packages have no files: xargs reports that by 123.
  { list_packages "$@" | sort -u | xargs dpkg -L 2>/dev/null || [[ $? == 123 ]]; } |
    sort -u | grep -v '^/usr/share/\(doc\|locale\|man\)/'
  find /usr/bin -type l -lname '/etc/alternatives/*' | while IFS= read -r link; do
    printf '%s\n%s\n' "$link" "$(readlink -- "$link")"
  done
}

# Where /bin and others are links to directories of /usr, packages don't know of that.
merge_directories() { # ROOT
  local link
  for link in /bin /sbin /lib*; do
    if [[ -L $link ]]; then
      mkdir -p "$1$(readlink -f -- "$link")"
      ln -s "$(readlink -- "$link")" "$1$link"
    fi
  done
}

fill_root() { # ROOT PACKAGE...
  local root=$1 file
  mkdir "$root"
  merge_directories "$root"
  list_files "${@:2}" | while IFS= read -r file; do
    if [[ $file == /?* && -r $file && ! -L $root$file ]]; then printf '%s\0' "${file#/}"; fi
  done | tar -C / -c --no-recursion --null -T - | tar -C "$root" -x --no-same-owner
  mkdir -p "$root/dev" "$root/proc" "$root/tmp"
}

users=(--user --map-root-user) # how the root's users are made

# Runs a script in the root. Where users have namespaces, nothing that it starts outlives it.
run_in_root() { # ROOT SCRIPT ARGUMENT...
  local inside=(/usr/bin/env -i PATH=/usr/bin:/bin:/usr/sbin:/sbin bash "${@:2}") namespaces=("${users[@]}" --mount --pid --fork)
  : >>"$1/dev/null"
  if unshare "${namespaces[@]}" true 2>/dev/null; then
    # shellcheck disable=SC2016 # the inner shell's
    unshare "${namespaces[@]}" --kill-child sh -c '
      mount --bind /dev/null "$0/dev/null" && mount -t proc proc "$0/proc" && exec chroot "$0" "$@"' "$1" "${inside[@]}"
  elif ((EUID == 0)); then
    rm "$1/dev/null"
    mknod -m 666 "$1/dev/null" c 1 3
    chroot "$1" "${inside[@]}"
  else
    fail 'this kernel gives no namespaces to users: run it as root'
  fi
}
