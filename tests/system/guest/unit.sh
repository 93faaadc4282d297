#!/bin/sh
# The system's unit, and a service of a user without privileges, in a machine that systemd has started. This runs in a
# unit of its own, as every other program of the host does. One line for each check, and the totals last.

export PATH=/bin
echo "machine: up"
# shellcheck source=/dev/null
. /checks.sh

main_pid() { systemctl show --property=MainPID --value nbdd.service; }
node() { echo "/run/nbdd/imports/1/$1"; }
lists() { nbdctl ilistnodes 1 | grep -A4 "Property: $1" | grep -q "value: active"; }
# Who is not root finds a service of his own unless told otherwise.
of_the_system() { NBDD_RUNTIME_DIR=/run/nbdd NBDD_STATE_DIR=/srv/nowhere "$@"; }
as_nobody() { setpriv --reuid=65534 --regid=65534 --clear-groups "$@"; }
as_member() { setpriv --reuid=65534 --regid=100 --clear-groups "$@"; }
same_file() { sha256sum -c /tmp/sum; }
restarted() { test "$(main_pid)" != 0 && test "$(main_pid)" != "$1" && lists block; }

mount -t tmpfs tmpfs /srv
truncate -s 64M /srv/disk.img
head -c 1000000 /dev/urandom | dd of=/srv/disk.img conv=notrunc 2>/dev/null
insmod /modules/loop.ko
check "a disk is there" losetup /dev/loop0 /srv/disk.img

# --- The system's service

check "the socket is there" systemctl start nbdd.socket
check "the utility starts the service" nbdctl list
check "the service is active" test "$(systemctl is-active nbdd.service)" = active
check "it has the mount namespace of all others" test "$(readlink "/proc/$(main_pid)/ns/mnt")" = "$(readlink /proc/self/ns/mnt)"
check "it gets no privileges by running programs" grep -q "NoNewPrivs:.1" "/proc/$(main_pid)/status"
check "its system calls are filtered" grep -q "Seccomp:.2" "/proc/$(main_pid)/status"
check "members of the group may control it" of_the_system as_member nbdctl list
check "others may not" refused "0x" of_the_system as_nobody nbdctl list
check "it opens disks" nbdctl add /dev/loop0
check "it exports them" nbdctl enable 1
check "it serves them" nbdctl start
check "it imports" nbdctl iadd 127.0.0.1 "$(nbdctl list | sed -n 's/^  ID 1 | //p')"
check "the import is enabled" nbdctl ienable 1
check "the drivers were loaded for it" test -d /sys/module/nbd -a -d /sys/module/fuse
for kind in block file socket; do
  check "the node $kind is active" lists "$kind"
done
check "others see the file" test -f "$(node disk)"
check "others read the file" cmp -n 1000000 "$(node disk)" /srv/disk.img
check "others read the block device" cmp -n 1000000 "$(node block)" /srv/disk.img
check "others see the socket" test -S "$(node socket)"

check "a file system is made on the block device" mkfs.ext4 -q "$(node block)"
check "it is mounted" mount -t ext4 "$(node block)" /mnt
head -c 3000000 /dev/urandom >/mnt/one
sha256sum /mnt/one >/tmp/sum
sync
first=$(readlink "$(node block)")
old=$(main_pid)
check "the service is restarted" systemctl restart nbdd.service
check "it comes back" await restarted "$old"
check "the path has stayed" test "$(readlink "$(node block)")" = "$first"
echo 3 >/proc/sys/vm/drop_caches
check "the file system goes on" same_file
old=$(main_pid)
check "the service is killed" systemctl kill --signal=KILL nbdd.service
check "systemd starts it again" await restarted "$old"
echo 3 >/proc/sys/vm/drop_caches
check "the file system goes on after that" same_file
check "the file node is there again" cmp -n 1000 "$(node disk)" /srv/disk.img
check "an import in use is not disabled without force" refused "code 0x32" disable_unused /run/nbdd/org.talvek.NBD 1
check "it is unmounted" umount /mnt
check "the import is disabled" await disable_unused /run/nbdd/org.talvek.NBD 1
check "the file has vanished" not test -e "$(node disk)"
check "nothing is mounted for it any more" not grep -q nbdd /proc/mounts
check "the service ends" systemctl stop nbdd.service nbdd.socket

# --- A user's service

chmod 666 /dev/fuse
mkdir -p /srv/user
printf '[server]\nlisten = ["127.0.0.1"]\n' >/srv/user/nbdd.toml
truncate -s 8M /srv/user/disk.img
head -c 1000000 /dev/urandom | dd of=/srv/user/disk.img conv=notrunc 2>/dev/null
chown -R 65534:65534 /srv/user
unprivileged() { NBDD_RUNTIME_DIR=/srv/user/run NBDD_STATE_DIR=/srv/user/state NBDD_CONFIG=/srv/user/nbdd.toml as_nobody "$@"; }
unprivileged nbdd >/srv/user/log 2>&1 &
server=$!
check "a user's service starts" await test -S /srv/user/run/org.talvek.NBD
check "it exports" unprivileged nbdctl add /srv/user/disk.img
unprivileged nbdctl enable 1 >/dev/null
check "it serves" unprivileged nbdctl start
name=$(unprivileged nbdctl list | sed -n 's/^  ID 1 | //p')
unprivileged nbdctl iadd 127.0.0.1 "$name" >/tmp/output 2>&1
check "it imports" unprivileged nbdctl ienable 1
check "it says what the block device needs" says "CAP_SYS_ADMIN" unprivileged nbdctl ilistnodes 1
check "fusermount3 mounts the file" grep -q "/srv/user/run/imports/1/disk fuse" /proc/mounts
check "the user reads it" as_nobody cmp -n 1000000 /srv/user/run/imports/1/disk /srv/user/disk.img
printf 'written by the user' >/tmp/text
chmod 644 /tmp/text
check "the user writes it" as_nobody dd if=/tmp/text of=/srv/user/run/imports/1/disk conv=notrunc,fsync
check "what was written is at the server" cmp -n 19 /tmp/text /srv/user/disk.img
check "the user takes it away" as_nobody fusermount3 -u /srv/user/run/imports/1/disk
check "the listing says so" says "taken it away" unprivileged nbdctl ilistnodes 1
check "the import is disabled" await unprivileged nbdctl idisable 1
check "it is enabled again" unprivileged nbdctl ienable 1
check "the file is there again" as_nobody cmp -n 19 /tmp/text /srv/user/run/imports/1/disk
check "it is disabled again" await unprivileged nbdctl idisable 1
kill "$server"
wait "$server"
check "nothing of it is mounted any more" not grep -q /srv/user /proc/mounts
finish
