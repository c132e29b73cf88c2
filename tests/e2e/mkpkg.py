#!/usr/bin/env python3
"""Firmware files for the update scenarios, made with Python's own CRC-32 and
MD5 so that a fault in the daemon's digests cannot hide in the test data.

  mkpkg.py pattern LEN SEED                 the test pattern, to stdout
  mkpkg.py ota OUT SIZE [OFF LEN] [--be-crc] [--append FILE]
      SIZE bytes of pattern with "OTAHEAD1", the S8137 offset and length and
      the CRC-32 from byte 12 (little-endian, big-endian with --be-crc);
      --append adds FILE behind it after the CRC is taken
  mkpkg.py section OUT [--mark C] NAME@OFF:LEN:SEED ...
      an 8192-byte S8137 section (digest, directory, images) behind a
      4096-byte package whose header points at it; NAME is taken as given
  mkpkg.py usb OUT BASE [--cut N] NAME@OFF:LEN:SEED[:upper] ...
      a USB upgrade file: image table at BASE + 0x100880, images at BASE + OFF
  mkpkg.py sign FILE KEY.pem ota|usb [--flip OFF]
      appends the 80-byte signature block (Python's cryptography signs), and
      makes an OTA package's CRC right again; --flip OFF then inverts the
      byte at OFF, the CRC made right once more
"""
import hashlib
import struct
import sys
import zlib


def pattern(n, seed):
    return bytes((i * 131 + seed * 17 + (i >> 8)) & 0xFF for i in range(n))


def images(image_args):
    for image_arg in image_args:
        name, rest = image_arg.rsplit("@", 1)
        off, length, seed, *flags = rest.split(":")
        yield name.encode().decode("unicode_escape").encode("latin-1"), int(off, 0), pattern(int(length), int(seed)), flags


def ota(size, off=0, length=0, be_crc=False):
    p = bytearray(pattern(size, 1))
    if size >= 32:
        p[0:8] = b"OTAHEAD1"
        p[24:32] = struct.pack("<II", off, length)
    if size >= 12:
        p[8:12] = struct.pack(">I" if be_crc else "<I", zlib.crc32(p[12:]))
    return bytes(p)


def crc_fixed(p):
    p[8:12] = struct.pack("<I", zlib.crc32(p[12:]))


def sign(data, key_file, kind):
    from cryptography.hazmat.primitives import serialization
    key = serialization.load_pem_private_key(open(key_file, "rb").read(), None)
    raw = key.public_key().public_bytes(serialization.Encoding.Raw, serialization.PublicFormat.Raw)
    covered = data[:8] + data[12:] if kind == "ota" else data
    domain = b"tty_hub OTA package v1" if kind == "ota" else b"tty_hub USB upgrade v1"
    message = domain.ljust(32, b"\0") + hashlib.sha256(covered).digest()
    p = bytearray(data + hashlib.sha256(raw).digest()[:8] + key.sign(message) + b"TTYHSIG1")
    if kind == "ota":
        crc_fixed(p)
    return p


def option(a, flag, value=True):
    """Takes --flag [VALUE] out of a; its value, True, or None."""
    if flag not in a:
        return None
    i = a.index(flag)
    found = a[i + 1] if value else True
    del a[i:i + 1 + value]
    return found


def main(a):
    verb, out = a[0], a[1]
    if verb == "pattern":
        sys.stdout.buffer.write(pattern(int(a[1]), int(a[2])))
        return
    append, be_crc, mark, cut = option(a, "--append"), option(a, "--be-crc", False), option(a, "--mark"), option(a, "--cut")
    flip = option(a, "--flip")
    if verb == "sign":
        data = sign(open(out, "rb").read(), a[2], a[3])
        if flip:
            data[int(flip, 0)] ^= 0xFF
            if a[3] == "ota":
                crc_fixed(data)
    elif verb == "ota":
        data = ota(*(int(x, 0) for x in a[2:]), be_crc=bool(be_crc))
        if append:
            data += open(append, "rb").read()
    elif verb == "section":
        s = bytearray(8192)
        for i, (name, off, img, _) in enumerate(images(a[2:])):
            s[16 + 40 * i:16 + 40 * i + len(name)] = name
            s[16 + 40 * i + 32:16 + 40 * i + 40] = struct.pack(">II", off, len(img))
            if off + len(img) <= len(s):
                s[off:off + len(img)] = img
        s[16 + 480] = ord(mark or "\0")
        data = ota(4096, 4096, 8192) + hashlib.md5(s[16:]).digest() + bytes(s[16:])
    elif verb == "usb":
        base = int(a[2], 0)
        f = bytearray(base + 0x106000)
        for i, (name, off, img, flags) in enumerate(images(a[3:])):
            at = base + 0x100880 + 128 * i
            digest = hashlib.md5(img).hexdigest()
            f[at:at + len(name)] = name
            f[at + 32:at + 64] = (digest.upper() if "upper" in flags else digest).encode()
            f[at + 68:at + 76] = struct.pack("<II", off, len(img))
            if base + off + len(img) <= len(f):
                f[base + off:base + off + len(img)] = img
        data = bytes(f[:int(cut, 0)] if cut else f)
    else:
        sys.exit("unknown verb " + verb)
    open(out, "wb").write(data)


main(sys.argv[1:])
