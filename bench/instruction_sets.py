"""Instruction sets that a comparison can be limited to with --isa.

To be imported first: the libraries read their limits as they are loaded. ONNX Runtime has none.
"""
import os
import sys
from pathlib import Path

LIMITS = {
    "avx2": {"FACEZOO_INSTRUCTION_SET": "avx2", "ONEDNN_MAX_CPU_ISA": "AVX2",
             "OPENBLAS_CORETYPE": "Haswell"},
    "avx512": {"FACEZOO_INSTRUCTION_SET": "avx512"},
}


def of_processor() -> str:
    flags = Path("/proc/cpuinfo").read_text(encoding="utf-8").split()
    return next((name for name in ("avx512bw", "avx2") if name in flags), "neither avx2 nor avx512")


for option, value in zip(sys.argv, sys.argv[1:]):
    if option == "--isa":
        os.environ.update(LIMITS.get(value, {}))
