"""Lists the device code in a library, as sm_90.cubin (machine code) or sm_90.ptx, a line each.

device_code.py LIBRARY: reads the section .nv_fatbin, whose containers hold one entry for each unit,
architecture and kind. NVIDIA's cuobjdump says the same, but is not part of every toolkit.
"""
import struct
import subprocess
import sys
import tempfile

MAGIC = 0xBA55ED50
KINDS = {1: "ptx", 2: "cubin"}

with tempfile.NamedTemporaryFile() as section:
    subprocess.run(["objcopy", "-O", "binary", "--only-section=.nv_fatbin", sys.argv[1],
                    section.name], check=True)
    data = section.read()
position = 0
while position + 16 <= len(data):
    magic, _, header, size = struct.unpack_from("<IHHQ", data, position)
    if magic != MAGIC:
        position += 8  # containers are aligned
        continue
    position += header
    end = position + size
    while position < end:
        kind, _, header, size = struct.unpack_from("<HHIQ", data, position)
        architecture, = struct.unpack_from("<I", data, position + 28)
        print(f"sm_{architecture}.{KINDS.get(kind, kind)}")
        position += header + size
