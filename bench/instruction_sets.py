"""Instruction sets that a comparison can be limited to with --isa.

To be imported before NumPy, which reads its limit when it is loaded. ONNX Runtime has no limit.
"""
import argparse
import os
from pathlib import Path

LIMITS = {
    "avx2": {"FACEZOO_INSTRUCTION_SET": "avx2", "ONEDNN_MAX_CPU_ISA": "AVX2",
             "OPENBLAS_CORETYPE": "Haswell"},
    "avx512": {"FACEZOO_INSTRUCTION_SET": "avx512"},
}


def of_processor() -> str:
    flags = Path("/proc/cpuinfo").read_text(encoding="utf-8").split()
    return next((name for name in ("avx512bw", "avx2") if name in flags), "neither avx2 nor avx512")


arguments = argparse.ArgumentParser(add_help=False)
arguments.add_argument("--isa")
os.environ.update(LIMITS.get(arguments.parse_known_args()[0].isa, {}))
