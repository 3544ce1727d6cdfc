#!/usr/bin/env bash
# The test programs on a processor with AVX-512, for machines that have none: Bochs emulates one, and on it runs a
# Linux with nothing else. Its arithmetic was written by others than ours in avx512_emulated.h. It tells nothing of how
# long anything takes. Arrays of many megabytes are left out: they would take hours.
#
# avx512_machine.sh BUILD WORK: the programs of BUILD; WORK is a folder for the machine's files, which is made anew.
set -Eeuo pipefail
build=$(realpath "$1") tests=$(realpath "$(dirname "$0")/..")
programs=(operators_test faults_test formats_test internals_test runtime_test test_math)

rm -rf "$2" && mkdir -p "$2"/{root/{bin,lib64,proc,dev,tmp,t},disc/boot/grub}
cd "$2"

# The kernel is downloaded and not installed. Debian 12's does not like what Bochs says of saving registers in compact
# form and of protection keys, and would then do without AVX.
kernel=$(apt-cache depends linux-image-cloud-amd64 | sed -n 's/^ *Depends: \(linux-image-[^ ]*\)$/\1/p' | head -1)
apt-get download -qq "$kernel" 2>download.log || { cat download.log && exit 1; }
dpkg-deb -x "$kernel"*.deb kernel
mv kernel/boot/vmlinuz* disc/boot/vmlinuz
cat >disc/boot/grub/grub.cfg <<'CFG'
linux /boot/vmlinuz console=ttyS0 quiet clearcpuid=xsaves,xsavec,pku tsc=unstable mitigations=off
initrd /boot/initrd.gz
boot
CFG

cp /bin/busybox root/bin
cp "${programs[@]/#/$build/bin/}" "$build/bin/kelrt_sweep" "$tests/math/digests.txt" root/t
ldd "${programs[@]/#/$build/bin/}" | awk '$2 == "=>" { print $3 }' | sort -u | xargs cp -Lt root/t
cp -L /lib64/ld-linux-x86-64.so.2 root/lib64
cat >root/init <<INIT
#!/bin/busybox sh
cd /t
/bin/busybox mount -t proc proc /proc
/bin/busybox mount -t devtmpfs dev /dev
exec >/dev/ttyS0 2>&1
export LD_LIBRARY_PATH=/t
/bin/busybox grep -q avx512vbmi /proc/cpuinfo; echo "avx512vbmi: \$?"
./kelrt_sweep --check digests.txt; echo "kelrt_sweep: \$?"
for program in ${programs[*]}; do
    ./\$program --gtest_brief=1 --gtest_filter=-*HugeArrays*; echo "\$program: \$?"
done
/bin/busybox sleep 5  # until all of it has left by the serial line
/bin/busybox poweroff -f
INIT
chmod +x root/init
(cd root && find . | cpio -o -H newc --quiet) | gzip -1 >disc/boot/initrd.gz
grub-mkrescue -o disc.iso disc >grub.log 2>&1 || { cat grub.log && exit 1; }

cat >bochsrc <<'CFG'
cpu: model=corei3_cnl, ips=50000000
megs: 512
romimage: file=/usr/share/bochs/BIOS-bochs-latest
vgaromimage: file=/usr/share/bochs/VGABIOS-lgpl-latest
ata0-master: type=cdrom, path=disc.iso, status=inserted
boot: cdrom
com1: enabled=1, mode=file, dev=serial.txt
display_library: rfb, options="timeout=0"
sound: driver=dummy
log: bochs.log
CFG
# Debian builds it with its debugger, which is told to go on, and reads on.
echo c >continue
mkfifo input
sleep infinity >input &
trap 'kill %1' EXIT
# It ends with 1 when the machine is switched off, too.
bochs -q -f bochsrc -rc continue <input >bochs.out 2>&1 || grep -q 'soft power off' bochs.out || tail bochs.out bochs.log

tr -d '\r' <serial.txt | sed -n '/^avx512vbmi:/,$p'
for program in avx512vbmi kelrt_sweep "${programs[@]}"; do
    tr -d '\r' <serial.txt | grep -qx "$program: 0" || { echo "$program did not pass" && exit 1; }
done
