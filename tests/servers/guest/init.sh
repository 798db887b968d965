#!/usr/bin/env bash
# PID 1 of the guest. Its root is this machine's, under a layer of memory; only the folder that the
# kernel's command line names by work= is written through. Runs the job that lies there.
export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root
set -e
trap 'sync; poweroff -f' EXIT

modules=/usr/lib/uml/modules/$(uname -r)
layer=/mnt
mount -t proc proc /proc
work=$(sed -n 's/.*\bwork=\([^ ]*\).*/\1/p' /proc/cmdline)
insmod "$modules/kernel/fs/overlayfs/overlay.ko"
mount -t tmpfs -o size=300m memory $layer
mkdir $layer/upper $layer/work $layer/root
mount -t overlay -o lowerdir=/,upperdir=$layer/upper,workdir=$layer/work overlay $layer/root
cd $layer/root
mount -t proc proc proc
mount -t sysfs sysfs sys
mount -t devtmpfs devtmpfs dev
mkdir -p dev/pts dev/shm
ln -s /proc/self/fd dev/fd
mount -t devpts -o ptmxmode=666 devpts dev/pts
mount -t tmpfs memory dev/shm
mount -t tmpfs memory run
mkdir -p run/lock run/netns lib/modules
mount --bind /usr/lib/uml/modules lib/modules
mount -t hostfs -o "$work" hostfs ".$work"
ip link set lo up

# What the kernel itself asks for is looked for where it starts, outside the layer.
printf '#!/bin/sh\nexec chroot %s /sbin/modprobe "$@"\n' "$PWD" >"$work/modprobe"
chmod +x "$work/modprobe"
echo "$work/modprobe" >proc/sys/kernel/modprobe

job="IN_GUEST=1 $(cat "$work/job")"
chroot . bash -c "cd / && $job" >"$work/output" 2>&1 && status=0 || status=$?
echo $status >"$work/status"
