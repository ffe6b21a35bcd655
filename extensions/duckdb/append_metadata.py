#!/usr/bin/env python3
"""Appends DuckDB's extension metadata footer to a shared object, which makes it a loadable
.duckdb_extension: a WebAssembly-style custom section named "duckdb_signature" holding eight
32-byte fields (last first) and 256 bytes of signature, zero for an unsigned extension.

    append_metadata.py IN.so OUT.duckdb_extension PLATFORM EXTENSION_VERSION C_API_VERSION

The fields: the footer format ("4"), the platform (linux_amd64), the C API version the extension
needs (v1.2.0: any DuckDB offering that version of the stable API loads it), the extension's own
version, and the ABI type C_STRUCT (the stable C API's function table).
"""
import shutil
import sys


def field(text):
    data = text.encode()
    if len(data) > 32:
        raise SystemExit(f"metadata field {text!r} is longer than 32 bytes")
    return data.ljust(32, b"\0")


def main():
    source, target, platform, extension_version, api_version = sys.argv[1:6]
    fields = ["4", platform, api_version, extension_version, "C_STRUCT", "", "", ""]
    footer = bytearray(b"\0")            # custom section id
    footer += bytes([0x93, 0x04])        # section length 531 as a LEB128 varint
    footer += bytes([16]) + b"duckdb_signature"
    footer += bytes([0x80, 0x04])        # payload length 512 as a LEB128 varint
    for value in reversed(fields):
        footer += field(value)
    footer += bytes(256)
    shutil.copyfile(source, target)
    with open(target, "ab") as out:
        out.write(footer)


if __name__ == "__main__":
    main()
