#!/usr/bin/env python3
"""Counts instructions on Arm and estimates cycles: the table of docs/performance.md.

usage: report.py PAGE BUILD32 [BUILD64]

BUILD32 and BUILD64 are folders built by clang for 32-bit and 64-bit Arm, each holding bin/kelrt_arm_work and the
plugin count_instructions.so. Of each row's work a shorter and a longer run are counted under qemu; their difference,
a unit of work, is free of start-up. The instructions that it executes most are the hot loops, which go to llvm-mca.
"""

import re
import subprocess
import sys
from functools import lru_cache
from pathlib import Path

SHORT, LONG = 2048, 10240  # units of work
UNITS = LONG - SHORT


class Target:
    def __init__(self, build, emulator, triple, features, cores):
        self.work = f"{build}/bin/kelrt_arm_work"
        self.plugin = f"{build}/count_instructions.so"
        self.counts_file = f"{build}/counts.txt"
        self.emulator, self.triple, self.features, self.cores = emulator, triple, features, cores
        self.code = dict(self.disassembly())

    def disassembly(self):
        """Address and text of each instruction of the program."""
        listing = run("llvm-objdump", "-d", "--no-show-raw-insn", self.work)
        for address, text in re.findall(r"^ *([0-9a-f]+):\s+(.*)$", listing, re.MULTILINE):
            yield int(address, 16), re.sub(r"\s*(@|//|<).*", "", text)

    def count(self, row, units):
        """How often each instruction is executed in a run, by address."""
        run(*self.emulator, "-plugin", f"{self.plugin},out={self.counts_file}", self.work, row, str(units))
        pairs = (line.split() for line in Path(self.counts_file).read_text().splitlines())
        return {int(address, 16): int(count) for address, count in pairs}

    def count_unit(self, row):
        """The same of a unit of work."""
        short, long = self.count(row, SHORT), self.count(row, LONG)
        return {address: (count - short.get(address, 0)) / UNITS for address, count in long.items()}

    def loops(self, counts):
        """Straight pieces of the program that are executed equally often, up to the branch back, with how often.

        What is in a row's least hundredth is left out: it is what stands around the loops.
        """
        least = sum(counts.values()) / 100
        pieces, last = [], None
        for address in sorted(a for a in counts if counts[a] > 0 and not self.code.get(a, "it").startswith("it")):
            if last is None or counts[last] != counts[address] or self.branches_back(last) or address - last > 256:
                pieces.append([])
            pieces[-1].append(address)
            last = address
        return [(tuple(self.code[a] for a in piece), counts[piece[0]]) for piece in pieces
                if counts[piece[0]] * len(piece) >= least]

    def branches_back(self, address):
        branch = re.match(r"(?:b|cbn?z|tbn?z)\S*\s(?:.*,)?\s*0x([0-9a-f]+)$", self.code[address])
        return branch is not None and int(branch[1], 16) <= address

    @lru_cache(maxsize=None)
    def model(self, core, loop):
        """Cycles of one round of a loop by llvm-mca's model of a core, and the bound of throughput alone."""
        rounds = 400
        report = run("llvm-mca", f"-mtriple={self.triple}", f"-mattr={self.features}", f"-mcpu={core}",
                     f"-iterations={rounds}", "-resource-pressure=0", "-instruction-info=0", "-",
                     input="\n".join(in_arm_mode(line) for line in loop))
        return (float(re.search(r"^Total Cycles: +(\d+)", report, re.MULTILINE)[1]) / rounds,
                float(re.search(r"^Block RThroughput: +(\S+)", report, re.MULTILINE)[1]))

    def measure(self, row, unit):
        """Instructions of a unit, then for each core its cycles and the bound; a call is no loop to model."""
        counts = self.count_unit(row)
        figures = [sum(counts.values())]
        if unit == "call":
            return figures + [None] * 2 * len(self.cores)
        for core in self.cores:
            rounds = [(self.model(core, loop), times) for loop, times in self.loops(counts)]
            figures += [sum(cycles * times for (cycles, _), times in rounds),
                        sum(bound * times for (_, bound), times in rounds)]
        return figures


def in_arm_mode(text):
    """An instruction as llvm-mca can model it: Thumb's as one of Arm mode, which needs no `it` before it."""
    text = text.replace(".w\t", "\t")
    text = re.sub(r"^v(ld|st)mia\s+(\w+), ({d\d+, d\d+})$", r"v\g<1>1.64 \3, [\2]", text)  # fails on the Cortex-A9
    text = re.sub(r"^cbn?z\s+r\d+, (0x\w+)$", r"beq \1", text)
    return re.sub(r"^(b\S*)\s+0x\w+$", r"\1 0x1000", text)  # Thumb's addresses are not all multiples of 4


def run(*command, **options):
    done = subprocess.run(command, capture_output=True, text=True, **options)
    if done.returncode != 0:
        sys.exit(f"report.py: {' '.join(command)} failed:\n{done.stderr}")
    return done.stdout


def number(x):
    if x is None:
        return ""
    return f"{x:.0f}" if x >= 99.5 else f"{x:.1f}" if x >= 9.95 else f"{x:.2f}"


def table(targets):
    head = ["", "unit"]
    for name, target in targets.items():
        head.append(f"{name}: instructions")
        for core in target.cores:
            head += [f"{core} cycles", "bound"]
    rows = [head, ["---", "---"] + ["---:"] * (len(head) - 2)]
    for line in run(*targets["32 bit"].emulator, targets["32 bit"].work).splitlines():
        row, unit = line.split("\t")
        figures = [figure for target in targets.values() for figure in target.measure(row, unit)]
        rows.append([row, unit] + [number(figure) for figure in figures])
    return "".join("| " + " | ".join(cells) + " |\n" for cells in rows)


def write_between_markers(page, name, content):
    begin, end = f"<!-- {name}: written by the program -->\n", f"<!-- end of {name} -->"
    text = Path(page).read_text()
    start, stop = text.find(begin), text.find(end)
    if start < 0 or stop < start:
        sys.exit(f"report.py: {page} has no markers of '{name}'")
    Path(page).write_text(text[: start + len(begin)] + "\n" + content + "\n" + text[stop:])


def main():
    if len(sys.argv) not in (3, 4):
        sys.exit(__doc__)
    targets = {"32 bit": Target(sys.argv[2], ["qemu-arm", "-L", "/usr/arm-linux-gnueabihf"],
                                "armv7a-linux-gnueabihf", "+neon", ["cortex-a9", "cortex-a57"])}
    if len(sys.argv) == 4:
        targets["64 bit"] = Target(sys.argv[3], ["qemu-aarch64", "-L", "/usr/aarch64-linux-gnu"],
                                   "aarch64-linux-gnu", "+neon", ["cortex-a57"])
    content = table(targets)
    print(content, end="")
    write_between_markers(sys.argv[1], "Arm", content)


main()
