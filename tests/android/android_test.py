#!/usr/bin/env python3
"""Holds Android.bp, and the presets for Android's NDK, against what CMake would build for the same processors.

usage: android_test.py SOURCE_DIR
"""

import json
import os
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile
import unittest

SOURCE = pathlib.Path()
ARCHITECTURES = {"arm": "armeabi-v7a", "arm64": "arm64-v8a", "riscv64": "riscv64", "x86": "x86", "x86_64": "x86_64"}
# What CMake says and Soong's own defaults cover, or say otherwise in a property of the module.
OF_SOONG = {
    "-fPIC", "-DNDEBUG", "-g",
    "-std=c++20", "-std=gnu++20",       # cpp_std
    "-U_FORTIFY_SOURCE", "-D_FORTIFY_SOURCE=3", "-fstack-protector-strong",
    "-Wl,-z,relro,-z,now", "-Wl,-z,defs", "-Wl,--as-needed", "-static-libgcc", "-lm", "-ldl",
}
TOKEN = re.compile(r'\s+|//[^\n]*|(?P<text>"(?:[^"\\]|\\.)*")|(?P<name>[A-Za-z_]\w*)|(?P<sign>[][{}:=,+])')


class Blueprint:
    """The modules of an Android.bp by name."""

    def __init__(self, text):
        self.tokens = []
        at = 0
        while at < len(text):
            match = TOKEN.match(text, at)
            if not match:
                raise ValueError("Android.bp, line %d: cannot be read" % (text.count("\n", 0, at) + 1))
            at = match.end()
            if match.lastgroup:
                self.tokens.append(match.group())
        self.variables = {"true": True, "false": False}
        self.modules = {}
        while self.tokens:
            name = self.tokens.pop(0)
            if self.take("="):
                self.variables[name] = self.value()
            else:
                module = self.map()
                self.modules[module["name"]] = dict(module, type=name)

    def take(self, sign):
        return self.tokens and self.tokens[0] == sign and self.tokens.pop(0)

    def expect(self, sign):
        if not self.take(sign):
            raise ValueError("Android.bp: '%s' is wanted in front of %s" % (sign, " ".join(self.tokens[:5])))

    def map(self):
        result = {}
        self.expect("{")
        while not self.take("}"):
            key = self.tokens.pop(0)
            self.expect(":")
            if key in result:
                raise ValueError("Android.bp: %s is there twice" % key)
            result[key] = self.value()
            if not self.take(","):
                self.expect("}")
                break
        return result

    def value(self):
        if self.tokens[0] == "{":
            result = self.map()
        elif self.take("["):
            result = []
            while not self.take("]"):
                result.append(self.value())
                if not self.take(","):
                    self.expect("]")
                    break
        else:
            token = self.tokens.pop(0)
            result = json.loads(token) if token.startswith('"') else self.variables[token]
        return result + self.value() if self.take("+") else result

    def properties(self, name, arch):
        """Of a module on a processor: lists of its defaults, of its own and of the processor's, one after the other."""
        result = {}

        def add(properties):
            for key, value in properties.items():
                if isinstance(value, list):
                    result[key] = result.get(key, []) + value
                elif not isinstance(value, dict) or key == "lto":
                    result[key] = value

        def add_module(module):
            for default in module.get("defaults", []):
                add_module(self.modules[default])
            add(module)
            add(module.get("arch", {}).get(arch, {}))
            add(module.get("multilib", {}).get("lib64" if arch.endswith("64") else "lib32", {}))

        add_module(self.modules[name])
        return result

    def compiled(self, name, arch):
        """{(source, flags)} of a module and the static libraries in it."""
        module = self.properties(name, arch)
        if module.get("enabled") is False:
            raise ValueError("%s is linked on %s, where it is not enabled" % (name, arch))
        flags = (module["cflags"] + module["cppflags"] + ["-std=" + module["cpp_std"]]
                 + ["-I" + folder for folder in module["local_include_dirs"]])
        result = {(source, normal(flags)) for source in module["srcs"]}
        for static in module.get("whole_static_libs", []):
            result |= self.compiled(static, arch)
        return result


def normal(flags):
    """Flags in an order and a spelling of their own, without those that Soong gives."""
    joined = re.sub(r"(-mllvm|-include) ", r"\1=", shlex.join(flags))
    return frozenset(re.sub(r"^-ffile-prefix-map=.*/=$", "-ffile-prefix-map=TREE/=", flag)
                     for flag in shlex.split(joined) if flag not in OF_SOONG)


class Configured:
    """What CMake would do, as its file API tells."""

    def __init__(self, folder, arch, preset=None):
        query = folder / ".cmake/api/v1/query/codemodel-v2"
        query.parent.mkdir(parents=True)
        query.touch()
        device = folder / "device"
        device.mkdir()
        for library in ("libtivnna_udriver.so", "libtiv_common.so", "liblog.so"):
            (device / library).touch()
        ndk = SOURCE / "tests/android/ndk"
        how = ["--preset", preset] if preset else [
            "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release", "-DKELRT_PLATFORM_DIR=%s" % device,
            "-DCMAKE_TOOLCHAIN_FILE=%s/build/cmake/android.toolchain.cmake" % ndk, "-DANDROID_ABI=" + ARCHITECTURES[arch]]
        result = subprocess.run(["cmake", *how, "-S", SOURCE, "-B", folder], cwd=SOURCE, text=True,
                                env=dict(os.environ, ANDROID_NDK=str(ndk), KELRT_PLATFORM_DIR=str(device)),
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        if result.returncode:
            raise RuntimeError(result.stdout)
        reply = folder / ".cmake/api/v1/reply"
        model = json.loads(next(reply.glob("codemodel-v2-*.json")).read_text())
        targets = [json.loads((reply / target["jsonFile"]).read_text())
                   for target in model["configurations"][0]["targets"]]
        self.targets = {target["name"]: target for target in targets}

    def compiled(self, names):
        result = set()
        for name in names:
            target = self.targets[name]
            for group in target["compileGroups"]:
                # The option that names the target, and nothing else, comes from the toolchain.
                flags = [flag for fragment in group.get("compileCommandFragments", [])
                         for flag in shlex.split(fragment["fragment"]) if not flag.startswith("--target=")]
                flags += ["-D" + define["define"] for define in group.get("defines", [])
                          if not define["define"].endswith("_EXPORTS")]
                flags += ["-I" + os.path.relpath(include["path"], SOURCE) for include in group.get("includes", [])]
                flags.append("-std=c++" + group["languageStandard"]["standard"])
                result |= {(target["sources"][index]["path"], normal(flags)) for index in group["sourceIndexes"]}
        return result

    def linked(self, name):
        return [flag for fragment in self.targets[name]["link"]["commandFragments"]
                for flag in shlex.split(fragment["fragment"])]


class AndroidTest(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        scratch = tempfile.TemporaryDirectory()
        cls.addClassCleanup(scratch.cleanup)
        cls.scratch = pathlib.Path(scratch.name)
        cls.blueprint = Blueprint((SOURCE / "Android.bp").read_text())
        cls.cmake = {arch: Configured(cls.scratch / arch, arch) for arch in ARCHITECTURES}

    def assert_same(self, ours, cmakes):
        def lines(compiled):
            return sorted("%s %s" % (source, " ".join(sorted(flags))) for source, flags in compiled)
        self.assertEqual(lines(ours), lines(cmakes))

    def test_android_bp(self):
        for arch in ARCHITECTURES:
            cmake = self.cmake[arch]
            library = [name for name in cmake.targets if name.startswith("kelRt_") and name != "kelRt_record"]
            for module, target, compiled in (("libkelRt", "kelRt", library),
                                             ("libkelRt_record", "kelRt_record", ["kelRt_record"])):
                with self.subTest(arch=arch, module=module):
                    self.assert_same(self.blueprint.compiled(module, arch), cmake.compiled(compiled))
                    ours = self.blueprint.properties(module, arch)
                    cmakes = cmake.linked(target)
                    script = "-Wl,--version-script=%s" % (SOURCE / ours["version_script"])
                    self.assertIn(script, cmakes)
                    options = {flag for flag in cmakes if flag.startswith("-Wl,") and flag != script
                               and not flag.startswith("-Wl,-soname,")}
                    self.assertEqual(set(ours.get("ldflags", [])), options - OF_SOONG)
                    self.assertEqual(set(ours.get("shared_libs", [])),
                                     {"lib" + flag[2:] for flag in set(cmakes) - OF_SOONG if flag.startswith("-l")})

    def test_what_only_properties_say(self):
        for arch in ARCHITECTURES:
            for module, described in self.blueprint.modules.items():
                if described["type"] != "cc_defaults":
                    properties = self.blueprint.properties(module, arch)
                    self.assertEqual((properties["cpp_std"], properties["lto"], properties["rtti"]),
                                     ("c++20", {"never": True}, False), module)
                    if arch == "arm":
                        self.assertEqual(properties["instruction_set"], "thumb")

    def test_presets(self):
        for preset, arch in (("android-armv7", "arm"), ("android-arm64", "arm64")):
            with self.subTest(preset=preset):
                names = ["kelRt_objects", "kelRt_neon", "kelRt_record"]
                by_preset = Configured(self.scratch / preset, arch, preset)
                self.assert_same(by_preset.compiled(names), self.cmake[arch].compiled(names))


if __name__ == "__main__":
    SOURCE = pathlib.Path(sys.argv.pop(1)).resolve()
    unittest.main()
