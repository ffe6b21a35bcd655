# Throwaway PostgreSQL clusters for the extension's tests and measurements; sourced by test/run,
# test/load and bench/run. Each cluster lives in a folder under one temporary folder, runs as the
# unprivileged postgres user when started by root, listens on 127.0.0.1 only, and is stopped (and
# the folder removed) when the sourcing script exits, whether it succeeds or fails.
#
# The servers run from a private copy of the PostgreSQL 15 installation in that temporary folder,
# with the extension installed into it (use_build_extension BUILD): nothing is written into the
# system's folders, so neither root nor sudo is needed (root runs the servers as postgres, since
# PostgreSQL refuses to run as root). PostgreSQL finds its share and library folders relative to
# its own program, so copies of the three programs that look for them (postgres, initdb, pg_ctl)
# beside a copy of the share folder and links to the system's modules make a complete
# installation.

system_bindir=$(/usr/bin/pg_config --bindir 2>/dev/null || pg_config --bindir)
pg_bindir=$system_bindir
ostrel_work=$(mktemp -d /tmp/ostrel-pg.XXXXXX)
chmod 755 "$ostrel_work"
ostrel_clusters=()

as_server_user() {
  if [ "$(id -u)" -eq 0 ]; then
    runuser -u postgres -- "$@"
  else
    "$@"
  fi
}
if [ "$(id -u)" -eq 0 ]; then chown postgres: "$ostrel_work"; fi

stop_clusters() {
  local status=$?
  for data in "${ostrel_clusters[@]}"; do
    as_server_user "$pg_bindir/pg_ctl" -D "$data" -m immediate stop >/dev/null 2>&1 || true
  done
  if [ "$status" -ne 0 ]; then
    for data in "${ostrel_clusters[@]}"; do
      echo "--- server log of $data (last lines)"
      tail -n 30 "$data/server.log" 2>/dev/null || true
    done
  fi
  rm -rf "$ostrel_work"
  return "$status"
}
trap stop_clusters EXIT

# use_build_extension BUILD: a private PostgreSQL installation under the temporary folder with the
# extension of the CMake build folder BUILD installed into it; pg_bindir then names its programs.
use_build_extension() {
  local build=$1
  local sharedir pkglibdir tree
  sharedir=$("$system_bindir/pg_config" --sharedir)
  pkglibdir=$("$system_bindir/pg_config" --pkglibdir)
  tree=$ostrel_work/install
  # The component installs to the server's absolute folders; under DESTDIR they land in the tree.
  DESTDIR=$tree cmake --install "$build" --component postgres >/dev/null
  mkdir -p "$tree$system_bindir" "$tree$sharedir" "$tree$pkglibdir"
  cp -rn "$sharedir"/. "$tree$sharedir"/
  local file
  for file in "$pkglibdir"/*; do
    [ -e "$tree$pkglibdir/${file##*/}" ] || ln -s "$file" "$tree$pkglibdir/"
  done
  for file in "$system_bindir"/*; do
    case ${file##*/} in
      postgres | initdb | pg_ctl) cp "$file" "$tree$system_bindir/" ;;
      *) ln -sf "$file" "$tree$system_bindir/" ;;
    esac
  done
  chmod -R a+rX "$tree"
  pg_bindir=$tree$system_bindir
}

# A free loopback port: one nothing answers on.
free_port() {
  local port
  while :; do
    port=$((20000 + RANDOM % 20000))
    if ! (exec 3<>/dev/tcp/127.0.0.1/"$port") 2>/dev/null; then
      echo "$port"
      return
    fi
  done
}

# start_cluster NAME [setting=value ...]: initdb and start a cluster; its port is left in
# $started_port (not printed: a command substitution would run it in a subshell, out of reach of
# the clean-up).
start_cluster() {
  local name=$1
  shift
  local data=$ostrel_work/$name
  local port
  port=$(free_port)
  as_server_user "$pg_bindir/initdb" -D "$data" -A trust -U postgres --no-sync -E UTF8 \
    --locale=C >/dev/null
  {
    echo "listen_addresses = '127.0.0.1'"
    echo "port = $port"
    echo "unix_socket_directories = '$ostrel_work'"
    echo "fsync = off"
    echo "synchronous_commit = off"
    echo "full_page_writes = off"
    echo "shared_buffers = 256MB"
    for setting in "$@"; do echo "$setting"; done
  } | as_server_user tee -a "$data/postgresql.conf" >/dev/null
  ostrel_clusters+=("$data")
  as_server_user "$pg_bindir/pg_ctl" -D "$data" -l "$data/server.log" -w start >/dev/null
  started_port=$port
}

# psql_at PORT [psql options...]: psql on the cluster at PORT as postgres, stopping at the first
# error.
psql_at() {
  local port=$1
  shift
  "$pg_bindir/psql" -X -q -v ON_ERROR_STOP=1 -h 127.0.0.1 -p "$port" -U postgres "$@"
}
