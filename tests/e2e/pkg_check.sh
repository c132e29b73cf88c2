# tty_hub_pkg: files it builds inspect as sound; each class of corruption is
# named by its field; bad input is refused with the old output left whole.
cd "$(mktemp -d)" && head -c 3000 /dev/urandom >fw && head -c 5000 /dev/urandom >img && head -c 4000 /dev/urandom >img2
ota=(--mcu fw --mcu-digest 000102030405060708090a0b) twelve=()
for i in $(seq 12); do twelve+=(--image "i$i=img2"); done
tty_hub_pkg build-ota -o pkg "${ota[@]}" --image a=img --image b=img2 >/dev/null &&
    tty_hub_pkg build-ota -o pkg12 "${ota[@]}" "${twelve[@]}" >/dev/null &&
    tty_hub_pkg build-usb -o usb --kernel img --rootfs img2 --base 16 >/dev/null &&
    tty_hub_pkg inspect pkg >/dev/null && tty_hub_pkg inspect pkg12 >/dev/null && tty_hub_pkg inspect usb >/dev/null || exit 1
d=$((2048 + 3000 + 16)) t=$((16 + 0x100880)) n32=$(printf 'n%.0s' {1..32}) failed=0
# FILE OFFSET BYTES|cut FIELD: a copy with BYTES at OFFSET (or cut there) names FIELD.
while read -r file off bytes field; do
    cp "$file" x && if [ "$bytes" = cut ]; then truncate -s $((off)) x; else printf "$bytes" | dd of=x bs=1 seek=$((off)) conv=notrunc 2>/dev/null; fi
    err=$(tty_hub_pkg inspect x 2>&1 >/dev/null)
    [ $? = 1 ] && [[ $err == "tty_hub_pkg: x: $field: "* ]] || { echo "$file $off $bytes: <$err>, not $field"; failed=1; }
done <<END
pkg 8 \x00 package CRC32
pkg 3000 \x01 package CRC32
pkg 1000 cut MCU section
pkg 24 \x00\x01 S8137 offset
pkg 28 \xff\xff S8137 length
pkg $((d + 9000)) cut S8137 length
pkg $((d + 600)) \x01 S8137 digest
pkg $d $n32 entry 0 name
pkg $((d + 40)) a\x00 entry 1 name
pkg $((d + 32)) \x00\x00\x00\x00 entry 0 offset
pkg $((d + 36)) \x7f entry 0 length
pkg12 $((d + 480)) x directory
usb $t K kernel record
usb $((t + 128)) $n32 record 1 name
usb $((t + 32)) X kernel MD5 text
usb $((t + 68 + 3)) \x10 kernel offset
usb $((t + 128 + 72 + 3)) \x10 rootfs length
usb $((16 + 0x100e00 + 5)) x kernel MD5
END
# A missing input, a name of 32 characters, a thirteenth image, no such directory.
for bad in "--image nothing" "--image $n32=img" "--image 13=img ${twelve[*]}" "-o /nonexistent/pkg"; do
    cp pkg old && tty_hub_pkg build-ota -o old "${ota[@]}" $bad 2>err
    [ $? = 2 ] && grep -q "^tty_hub_pkg: " err && cmp -s old pkg && ! ls -a | grep -q tty_hub_pkg || { echo "$bad: $(cat err)"; failed=1; }
done
exit $failed
