#!/bin/sh
# The node "block" on a real kernel, as the first process of a machine. One line for each check, and the totals last.

export PATH=/bin
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
mkdir -p /dev/shm
mount -t tmpfs tmpfs /dev/shm
mount -t tmpfs tmpfs /srv
mount -t tmpfs tmpfs /run
ip link set lo up
echo "machine: up"
# shellcheck source=/dev/null
. /checks.sh

control=/srv/client/run/org.talvek.NBD
device() { readlink -f /srv/client/run/imports/1/block; }
link() { readlink /srv/client/run/imports/1/block; }
node_state() { ctl client ilistnodes "$1" | sed -n '/block/,/file/p'; }
users() { node_state 1 | grep -A1 "Property: users" | sed -n 's/.*value: //p'; }
queue() { cat "/sys/block/$(basename "$(device)")/queue/$1"; }
used() { du -k /srv/disk.img | cut -f 1; }
files() { (cd /mnt && sha256sum one two three); }
write_files() {
  for name in one two three; do
    head -c 3000000 /dev/urandom >"/mnt/$name" || return 1
  done
  sync
  files >/tmp/sums
}
same_files() {
  sync
  echo 3 >/proc/sys/vm/drop_caches
  (cd /mnt && sha256sum -c /tmp/sums)
}
# Writes every block of a file in random order, so many in a second and 16 at once, then reads all back and compares.
begin_io() { # writes per second
  rm -f /mnt/verify
  fio --name=verify --filename=/mnt/verify --size=16M --bs=4k --rw=randwrite --iodepth=16 --ioengine=libaio --direct=1 \
    --rate_iops="100000,$1" --verify=crc32c --verify_fatal=1 --minimal >/tmp/fio 2>&1 &
  io=$!
  await test -s /mnt/verify
}
end_io() {
  wait "$io" || {
    cat /tmp/fio
    return 1
  }
}
under_way() { kill -0 "$io" 2>/dev/null; }
inflight() { awk '{ exit $1 + $2 == 0 }' "/sys/block/$(basename "$(device)")/inflight"; }

# --- What there is to import

truncate -s 192M /srv/disk.img
truncate -s 16M /srv/read-only.img
mkdir -p /srv/server /srv/client
printf '[server]\nlisten = ["127.0.0.1"]\n' | tee /srv/server/nbdd.toml >/srv/client/nbdd.toml
check "the server starts" start server
check "the server has an export" ctl server add /srv/disk.img
check "the export is enabled" ctl server enable 1
check "the server serves" ctl server start
name=$(ctl server list | sed -n 's/^  ID 1 | //p')
check "the client starts" start client
check "the import is added" ctl client iadd 127.0.0.1 "$name"

# --- Without the driver

check "the import is enabled without the driver" ctl client ienable 1
check "the listing says what is missing" says "modprobe nbd" node_state 1
check "the import is disabled" ctl client idisable 1
check "the driver is loaded" insmod /modules/nbd.ko nbds_max=4

# --- With it

check "the import is enabled" ctl client ienable 1
check "the node is listed as active" says "value: active" node_state 1
check "the best node is the block device" says "/srv/client/run/imports/1/block" ctl client ilist
check "its path leads to a block device" test -b "$(device)"
check "the size is the export's" test "$(blockdev --getsize64 "$(device)")" = 201326592
check "blocks are of 512 bytes" test "$(blockdev --getss "$(device)")" = 512
check "it can be written" test "$(blockdev --getro "$(device)")" = 0
check "the kernel flushes its cache" test "$(queue write_cache)" = "write back"
check "the kernel uses FUA" test "$(queue fua)" = 1
check "the kernel trims" not test "$(queue discard_max_bytes)" = 0
check "the kernel looks after requests every 10 s" await test "$(queue io_timeout)" = 10000
check "the kernel's requests are of 1 MiB" test "$(queue max_sectors_kb)" = 1024
first=$(link)

check "a file system is made" mkfs.ext4 -q /srv/client/run/imports/1/block
check "it is mounted" mount -t ext4 /srv/client/run/imports/1/block /mnt
check "the mount is a user" test "$(users)" = 1
check "disabling without force is refused" refused "code 0x32" disable_unused $control 1
check "files are written" write_files
check "files are read back" same_files

# --- The server is killed

begin_io 300
for _ in 1 2 3; do
  end server 9
  usleep 500000
  start server
  usleep 500000
done
check "writes were under way all the time" under_way
check "writes go on while the server is killed and comes back" end_io
check "no byte is wrong after it" same_files

# --- The client is restarted

begin_io 400
await inflight
end client 9
check "the device outlives its service" test -b "$(device)"
start client
check "writes go on after the client was killed" end_io
check "the path has stayed" test "$(link)" = "$first"
check "the node is active again" await says "value: active" node_state 1
check "no byte is wrong after a killed client" same_files

begin_io 400
await inflight
end client TERM
start client
check "writes go on after a restart of the client" end_io
check "the path has stayed again" test "$(link)" = "$first"
check "no byte is wrong after a restart of the client" same_files

end server 9
end client 9
start client
(head -c 1000000 /dev/urandom >/mnt/four && sync) &
writer=$!
usleep 1000000
check "programs wait for a server that was away when the client started" kill -0 "$writer"
start server
check "they go on when it is back" wait "$writer"
check "no byte is wrong after both were away" same_files

# --- TRIM

before=$(used)
check "files are removed" rm /mnt/verify /mnt/four
sync
check "free space is trimmed" fstrim /mnt
after=$(used)
check "TRIM reaches the server ($before KiB, then $after KiB)" test $((before - after)) -gt 15000

check "it is unmounted" umount /mnt
check "the file system is in order" e2fsck -f -n "$(device)"
check "it is mounted again" mount -t ext4 "$(device)" /mnt
check "the files are there" same_files
check "it is unmounted again" umount /mnt
check "the whole device is discarded" blkdiscard -f "$(device)"
check "nothing is left at the server" test "$(used)" -lt 1000

# --- By force

check "a new file system is made" mkfs.ext4 -q "$(device)"
check "the new one is mounted" mount -t ext4 "$(device)" /mnt
check "new files are written" write_files
begin_io 400
await inflight
check "disabling by force ends at once" ctl client idisable 1
check "programs get errors" not end_io
check "the path has vanished" not test -e /srv/client/run/imports/1/block
umount /mnt
check "nobody waits for ever" await not uninterruptible

# The server stays away: disabling by force still ends.
check "the import is enabled again" ctl client ienable 1
check "the disk is mounted once more" mount -t ext4 "$(device)" /mnt
end server 9
(head -c 1000000 /dev/urandom >/mnt/five && sync) >/dev/null 2>&1 &
writer=$!
await inflight
check "disabling by force does not wait for the server" ctl client idisable 1
wait "$writer"
umount /mnt
check "nobody waits for a server that is away" await not uninterruptible
start server

# --- Taken away by others, and without force

check "the import is enabled a third time" ctl client ienable 1
check "somebody disconnects the device" nbd-client -d "$(device)"
check "the listing says so" await says "taken it away" node_state 1
check "the import is disabled without force" disable_unused $control 1
check "it is enabled for the last time" ctl client ienable 1
last=$(device)
check "nobody uses it: it is disabled without force" await disable_unused $control 1
check "the device is not connected any more" not test -e "/sys/block/$(basename "$last")/pid"

# --- Read-only

check "the server has a read-only export" ctl server add /srv/read-only.img ro
check "the read-only export is enabled" ctl server enable 2
name=$(ctl server list | sed -n 's/^  ID 2 | //p')
check "it is imported" ctl client iadd 127.0.0.1 "$name"
check "it is enabled read-only" ctl client ienable 2
read_only=$(readlink -f /srv/client/run/imports/2/block)
check "the device is read-only" test "$(blockdev --getro "$read_only")" = 1
check "writing fails" refused . dd if=/dev/zero of="$read_only" bs=4096 count=1 conv=fsync
check "reading works" dd if="$read_only" of=/dev/null bs=1M count=8
check "the read-only import is disabled" await disable_unused $control 2

# --- The end

end client TERM
end server TERM
check "both services are gone" not pidof nbdd
check "nobody waits at the end" await not uninterruptible
check "the kernel has nothing to complain of" not says "BUG|Oops|blocked for more|Call Trace" dmesg
finish
