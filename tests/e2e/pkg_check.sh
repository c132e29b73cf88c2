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
# refused FIELD FILE [OPTION...]: inspect exits 1 naming FIELD.
refused() {
    local field=$1 file=$2 err
    shift 2
    err=$(tty_hub_pkg inspect "$@" "$file" 2>&1 >/dev/null)
    [ $? = 1 ] && [[ $err == "tty_hub_pkg: $file: $field: "* ]] || { echo "$file $*: <$err>, not $field"; failed=1; }
}
# FILE OFFSET BYTES|cut FIELD: a copy with BYTES at OFFSET (or cut there) names FIELD.
while read -r file off bytes field; do
    cp "$file" x && if [ "$bytes" = cut ]; then truncate -s $((off)) x; else printf "$bytes" | dd of=x bs=1 seek=$((off)) conv=notrunc 2>/dev/null; fi
    refused "$field" x
done <<END
pkg 8 \x00 package CRC32
pkg 3000 \x01 package CRC32
pkg 1000 cut MCU section
pkg 24 \x00\x01 S8137 offset
pkg 28 \xff\xff S8137 length
pkg 24 \xff\xff\xff\x00 S8137 offset
pkg $((d + 32)) \x00\x01\x00\x00 entry 0 offset
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
# A missing input, a name of 32 characters or with a '/', a thirteenth image,
# no such directory, an option given twice.
for bad in "--image nothing" "--image $n32=img" "--image ../x=img" "--image 13=img ${twelve[*]}" "-o /nonexistent/pkg" "-o x"; do
    cp pkg old && tty_hub_pkg build-ota -o old "${ota[@]}" $bad 2>err
    [ $? = 2 ] && grep -q "^tty_hub_pkg: " err && cmp -s old pkg && ! ls -a | grep -q tty_hub_pkg || { echo "$bad: $(cat err)"; failed=1; }
done
tty_hub_pkg build-ota -o x "${ota[@]}" --image ../x=img 2>&1 | grep -q "image name '../x'" || { echo "--image ../x=img: not named"; failed=1; }
tty_hub_pkg inspect --ota --usb pkg 2>&1 | grep -q "conflict" || { echo "--ota --usb: no conflict"; failed=1; }
# A guessed USB base is said; images right behind their records are sound.
tty_hub_pkg inspect usb | grep -q "^base: .* a guess" && ! tty_hub_pkg inspect --base 16 usb | grep -q guess || { echo "usb base: guess not said"; failed=1; }
python3 $DATA/mkpkg.py usb near 100 kernel@0x100980:5000:11 rootfs@0x101D08:300:12 && tty_hub_pkg inspect --base 100 near >/dev/null || { echo "near: refused"; failed=1; }
# Empty firmware is warned about when built and when inspected.
: >empty && tty_hub_pkg build-ota -o e --mcu empty --mcu-digest 000102030405060708090a0b 2>&1 | grep -q "warning: --mcu empty: empty" &&
    tty_hub_pkg inspect e | grep -q "^MCU section: *warning: empty" || { echo "empty firmware: no warning"; failed=1; }
# A large file's passes show progress on a terminal, and nothing on a pipe.
truncate -s 70M big && script -qc "tty_hub_pkg inspect --ota big" /dev/null | grep -q "checking 100%" &&
    ! tty_hub_pkg inspect --ota big 2>&1 | grep -q checking || { echo "progress: not on a terminal only"; failed=1; }

# Signatures: Ed25519 signs deterministically, so the tool's signed files are
# byte for byte those of an independent signer (Python's cryptography); sign
# replaces a block; inspect with the wrong key, no block or a changed byte
# names the signature.
for k in key other; do openssl genpkey -algorithm ed25519 -out $k && openssl pkey -in $k -pubout -out $k.pub || exit 1; done
if ! grep -q "^TTY_HUB_SIGNING:BOOL=ON" "$BIN/CMakeCache.txt"; then
    tty_hub_pkg sign pkg --key key 2>&1 | grep -q "built without signing" || { echo "sign in a build without signing"; failed=1; }
    exit $failed
fi
chmod 644 other
cp pkg py-pkg && python3 $DATA/mkpkg.py sign py-pkg key ota && cp usb py-usb && python3 $DATA/mkpkg.py sign py-usb key usb &&
    tty_hub_pkg build-ota -o spkg "${ota[@]}" --image a=img --image b=img2 --sign key >/dev/null && cmp spkg py-pkg &&
    tty_hub_pkg build-usb -o susb --kernel img --rootfs img2 --base 16 --sign key >/dev/null && cmp susb py-usb &&
    tty_hub_pkg sign spkg --key other >/dev/null 2>&1 && tty_hub_pkg sign spkg --key key 2>&1 >/dev/null | cmp - /dev/null && cmp spkg py-pkg &&
    tty_hub_pkg inspect --ota-key other.pub --ota-key key.pub spkg >/dev/null || { echo "signing differs from the independent signer"; failed=1; }
cp spkg x && tty_hub_pkg sign x --key other 2>&1 | grep -q "warning: --key other: a private key that group or others can read" || { echo "no warning for mode 644"; failed=1; }
cp pkg flipped && python3 $DATA/mkpkg.py sign flipped key ota --flip 3000
refused signature spkg --ota-key other.pub
refused signature pkg --ota-key key.pub
refused signature flipped --ota-key key.pub
exit $failed
