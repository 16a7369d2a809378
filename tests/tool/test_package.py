"""The command line in its four descriptions, and the packages as an administrator uses them."""
import contextlib
import functools
import glob
import json
import os
import pathlib
import pty
import re
import shutil
import subprocess
import tempfile
import time
import unittest

from ftpd import Daemon, serve_behind
from xbsa import ROOT

BUILD, TOOL = os.environ["XBSA_BUILD"], os.environ["XBSA_TOOL"]
ENV = {"PATH": os.environ["PATH"] + ":/usr/sbin:/sbin", "LC_ALL": "C.UTF-8", "TZ": "UTC",
       "SOURCE_DATE_EPOCH": "1000000000", "XBSA_PASSWORD": "secret", "MANWIDTH": "80",
       "TMPDIR": tempfile.gettempdir()}
NOW = int(time.time())
LIBDIR = f"lib/{os.uname().machine}-linux-gnu"
DOC = "share/doc/korva-xbsa"
FILES = {"libxbsa1": f"{LIBDIR}/libxbsa.so.1 {LIBDIR}/libxbsa.so.1.0.0",
         "libxbsa-dev": f"""include/xbsa.h include/xbsa_session.h {LIBDIR}/libxbsa.so
            {LIBDIR}/pkgconfig/xbsa.pc {LIBDIR}/cmake/xbsa/xbsaConfig.cmake
            share/man/man3/xbsa.3.gz {DOC}/examples/store.c""",
         "xbsactl": f"""bin/xbsactl share/man/man1/xbsactl.1.gz share/man/man1/xbsactl-check.1.gz
            share/man/man7/korva-xbsa.7.gz
            {DOC}/docs/settings.md {DOC}/examples/korva-xbsa.logrotate
            {DOC}/examples/systemd/korva-xbsa-check.service {DOC}/examples/wireguard/database-host.conf
            share/bash-completion/completions/xbsactl share/zsh/vendor-completions/_xbsactl""",
         "korva-xbsa-sandbox": """bin/korva-sandbox bin/korva-xbsa-demo share/korva-xbsa/sandbox/run
            share/man/man1/korva-sandbox.1.gz""",
         "korva-xbsa": "", "korva-xbsa-dev": ""}
# The contents of the packages before the split.
OLD = {"korva-xbsa": ["libxbsa1", "xbsactl"], "korva-xbsa-dev": ["libxbsa-dev"]}


def output(*command, **more):
    done = subprocess.run(command, env=ENV, text=True, capture_output=True, check=False, **more)
    assert done.returncode == 0, f"{command}: {done.returncode}\n{done.stdout}{done.stderr}"
    return done.stdout + done.stderr


def read(name):
    return pathlib.Path(ROOT, name).read_text(encoding="utf-8")


def offered(text):
    return set(re.findall(r"(?:^  |, ?)(-[\w-]+)", text, re.M))


def documented(page):
    text = read(f"man/{page}").replace("\\-", "-").partition("\n.SH OPTIONS\n")[2].split("\n.SH ")[0]
    return set(re.findall(r"(?<![\w-])-[a-z-]+", " ".join(re.findall(r"^\.TP\n(.*)", text, re.M))))


def typed(shell, script):
    folder = tempfile.mkdtemp(prefix="typed")
    unittest.addModuleCleanup(shutil.rmtree, folder)
    os.makedirs(f"{folder}/in/sub")
    output("touch", "a b", "note", cwd=f"{folder}/in")
    pid, terminal = pty.fork()
    if pid == 0:
        os.chdir(f"{folder}/in")
        os.execvpe(shell[0], shell, {"TERM": "dumb", "PATH": ENV["PATH"], "HISTFILE": ""})
    os.write(terminal, "\n".join(script).encode())
    with contextlib.suppress(OSError):  # the terminal has closed
        while os.read(terminal, 4096):
            pass
    os.waitpid(pid, 0)
    return read(f"{folder}/out")


def completed(*lines):
    """The arguments of each line in bash, after the key that inserts all completions."""
    text = typed(["bash", "--norc", "--noprofile", "-i"], [
        f". {ROOT}/completions/xbsactl.bash", "xbsactl() { printf '%s\\n' \"$@\" =; } >>../out",
        *(f"xbsactl {line}\x1b*" for line in lines), "exit", ""])
    return [part.split("\n")[:-1] for part in text.split("=\n")[:-1]]


class Interface(unittest.TestCase):
    def test_options(self):
        screen = output(TOOL, "--help")
        commands = re.findall(r"^  (\w+)", screen.split("\nCommands:\n")[1].split("\n\n")[0], re.M)
        self.assertLess(screen.count("\n"), 25)
        self.assertEqual([screen, output(TOOL, "check", "--help")],
                         [output(TOOL, "help"), output(TOOL, "--informix", "check", "help")])
        with self.assertRaisesRegex(AssertionError, "--host is missing"):  # a name and a file
            output(TOOL, "store", "check", "help")
        options, everywhere = {}, offered(screen)
        for name in commands:
            text = output(TOOL, "help", name)
            self.assertLessEqual(max(map(len, (screen + text).splitlines())), 80, name)
            own, general = re.split("\n(?:Informix mode|Common options):\n", text, maxsplit=1)
            options[name] = offered(own) - {"-h", "--help"}
            everywhere |= offered(general)
        pages = {name: documented(f"xbsactl-{name}.1") for name in commands}
        self.assertEqual({"": documented("xbsactl.1"), **pages}, {"": everywhere, **options})

        words, general, *lines = completed("", "-", *(f"{name} -" for name in commands))
        self.assertEqual((set(words), set(general)), (set(commands), everywhere))
        self.assertEqual({line[0]: set(line[1:]) for line in lines},
                         {name: options[name] | everywhere for name in commands})
        zsh, texts = read("completions/_xbsactl"), json.loads(read("tools/xbsactl/options.json"))
        general, rest = zsh.split("own general=(")[1].split("\n    )", 1)
        found = {name: set(re.findall(r"['*){,](-[\w-]+)(?=[=\[},])", part)) for name, part in
                 [("", general), *re.findall(r"^ {8}(\w+)\)\n(.*?);;", rest, re.M | re.S)]}
        self.assertEqual(found, {"": everywhere, **options})
        for told in re.findall(r"\[([A-Z][^]]+)\]|^ +'\w+:([A-Z].*)'$", zsh, re.M):
            self.assertTrue(any(text.startswith("".join(told)) for text in texts.values()), told)
        self.assertEqual(documented("korva-sandbox.1"), offered(output(f"{ROOT}/sandbox/run", "--help")))

    def test_values(self):
        cases = {"store x ": "store|x|a b|note|sub", "store x y ": "store|x|y",
                 "--host h:21 trace n": "--host|h:21|trace|note", "--user ": "--user",
                 "--trace ": "--trace|2|3", "--trace 2:n": "--trace|2:note",
                 "--password-file trace query --j": "--password-file|trace|query|--json",
                 "verify --manifest=a": "verify|--manifest=a b"}
        self.assertEqual(dict(zip(cases, map("|".join, completed(*cases)))), cases)


@functools.cache
def build(kind, umask="077"):
    folder = tempfile.mkdtemp(prefix="package")
    unittest.addModuleCleanup(shutil.rmtree, folder)
    more = ["env", f"SOURCE_DATE_EPOCH={NOW}"] if kind == "RPM" else []  # newer than the sources
    output("sh", "-c", f'umask {umask}; exec "$@"', "sh", *more, "cpack", "-G", kind, "-B", folder,
           "--config", f"{BUILD}/CPackConfig.cmake", cwd=folder)
    return sorted(glob.glob(f"{folder}/*.{kind.lower()}"))


def assert_same(kind):
    for one, other in zip(build(kind), build(kind, "002")):
        output("cmp", one, other)


class Packages(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.packages = build("DEB")
        cls.root = os.path.join(os.path.dirname(cls.packages[0]), "root")
        for package in cls.packages:
            output("dpkg-deb", "-x", package, cls.root)

    def test_contents(self):
        found = {output("dpkg-deb", "-f", path, "Package").strip(): path for path in self.packages}
        self.assertEqual(found.keys(), FILES.keys())
        for name, path in found.items():
            listed = re.findall(r"^(\S+) (\S+) +\d+ (.{16}) \./usr/(\S*)", output("dpkg-deb", "-c", path), re.M)
            self.assertLessEqual(set(FILES[name].split()), {file for *_, file in listed})
            for mode, owner, time, file in listed:
                program = re.match(r"bin/|share/korva-xbsa/(demo.sh|sandbox/[^.]*$|tools/servers.sh)", file)
                modes = {"d": "drwxr-xr-x", "l": "lrwxrwxrwx", "-": "-rwxr-xr-x" if program else "-rw-r--r--"}
                self.assertEqual((mode, owner, time), (modes[mode[0]], "root/root", "2001-09-09 01:46"), file)
        path = found["libxbsa1"]
        self.assertEqual(output("dpkg-deb", "-f", path, "Depends").strip(), "libc6 (>= 2.17)")
        self.assertIn("libxbsa 1 libxbsa1", output("dpkg-deb", "-I", path, "shlibs"))
        output(*"dpkg-gensymbols -plibxbsa1 -v1.0.0 -c4 -O".split(), f"-P{self.root}",
               f"-I{ROOT}/packaging/library/symbols")
        self.assertRegex(output("dpkg-deb", "-f", found["xbsactl"], "Depends"), r"libxbsa1 \(= .*libc6.*libssl3")
        facts = output("readelf", "-Whld", f"{self.root}/usr/bin/xbsactl")
        self.assertRegex(facts, r"(?s)DYN \(.*GNU_RELRO.*BIND_NOW")

    def test_same(self):
        assert_same("DEB")
        with tempfile.TemporaryDirectory() as folder:
            shutil.copytree(ROOT, f"{folder}/source",
                            ignore=shutil.ignore_patterns("build", ".git", "__pycache__"))
            output("chmod", "-R", "g+w,o-r", f"{folder}/source")
            for command in ("-S source -B build -DXBSA_TESTS=OFF", "--build build --target documents",
                            "--install build --prefix root --component sandbox-common"):
                output("cmake", *command.split(), cwd=folder)
            output("diff", "-r", f"{folder}/root/share/korva-xbsa", f"{self.root}/usr/share/korva-xbsa")
            output("sh", "-c", "! find root -type f ! -perm 644 ! -perm 755 | grep .", cwd=folder)

    def test_use(self):
        usr, name = f"{self.root}/usr", os.path.join(self.root, "object")
        server = serve_behind(self, Daemon("proftpd"))
        where = f"127.0.0.1:{server.port}"
        login = ["--host", where, "--user", "backup"]
        pathlib.Path(name).write_bytes(os.urandom(200000))
        loaded = output("env", "LD_DEBUG=files", f"{usr}/bin/xbsactl", "store", "obj", name, *login)
        self.assertIn(f"calling init: {usr}/bin/../{LIBDIR}/libxbsa.so.1", loaded)
        output(f"{usr}/bin/xbsactl", "restore", "obj", name + ".back", *login)
        output("cmp", name, name + ".back")

        source = f"{usr}/{DOC}/examples/store.c"
        pathlib.Path(self.root, "CMakeLists.txt").write_text(
            f"cmake_minimum_required(VERSION 3.18)\nproject(store C)\nfind_package(xbsa 1.0 REQUIRED)"
            f"\nadd_executable(store {source})\ntarget_link_libraries(store xbsa::xbsa)\n")
        output("cmake", "-S.", "-Bout", f"-DCMAKE_PREFIX_PATH={usr}", cwd=self.root)
        output("cmake", "--build", "out", cwd=self.root)
        output(f"{self.root}/out/store", where, "backup", "secret", "cmake")
        flags = output("env", f"PKG_CONFIG_PATH={usr}/{LIBDIR}/pkgconfig", "pkg-config", "--cflags",
                       "--libs", "xbsa = 1.0.0").split()
        output("cc", "-Wall", "-Werror", source, "-o", name + ".exe", *flags)
        output("env", f"LD_LIBRARY_PATH={usr}/{LIBDIR}", name + ".exe", where, "backup", "secret", "example")
        self.assertEqual([server.stored()[made] for made in ("cmake", "example")], [b"Hello from a backup.\n"] * 2)
        output(f"{usr}/bin/korva-sandbox", "--exec", f"{usr}/bin/xbsactl", "--informix", "store",
               "--space", "rootdbs", "level0", name)

    @contextlib.contextmanager
    def dpkg(self):
        with tempfile.TemporaryDirectory() as root:
            output("mkdir", "-p", f"{root}/var/lib/dpkg/info", f"{root}/var/lib/dpkg/updates")
            output("touch", f"{root}/var/lib/dpkg/status")
            yield root, ["dpkg", f"--root={root}", f"--log={root}/var/log", "--force-not-root",
                         "--force-depends", "--force-script-chrootless", "--path-include=*"]

    def old(self, folder, name, parts):
        """The package as before the split, with the files of its successors."""
        files = [f"./usr/{file}" for part in parts for file in FILES[part].split()]
        output("mkdir", "-p", f"{folder}/{name}/DEBIAN")
        output("cp", "-a", "--parents", *files, f"{folder}/{name}", cwd=self.root)
        pathlib.Path(folder, name, "DEBIAN/control").write_text(
            f"Package: {name}\nVersion: 1.0.0-1\nArchitecture: all\nMaintainer: {name}\nDescription: old\n")
        output("dpkg-deb", "-b", f"{folder}/{name}")
        return f"{folder}/{name}.deb"

    def test_upgrade(self):
        with self.dpkg() as (root, dpkg):
            old = [self.old(f"{root}/var", name, parts) for name, parts in OLD.items()]
            output(*dpkg, "--install", *old)
            library = [path for path in self.packages if "/libxbsa1_" in path]
            with self.assertRaisesRegex(AssertionError, "breaks korva-xbsa"):
                output(*dpkg, "--install", *library)
            output(*dpkg, "--install", *self.packages)
            output(f"{root}/usr/bin/xbsactl", "--version")
            states = output("dpkg-query", f"--root={root}", "-Wf", "${Package} ${Version} ${db:Status-Status}\n")
            self.assertEqual(states.splitlines(), [f"{name} 1.0.0-2 installed" for name in sorted(FILES)])
            owners = [f"{name}: /usr/{file}" for name, files in FILES.items() for file in files.split()]
            self.assertEqual(output(*dpkg, "-S", *[owner.split()[1] for owner in owners]).splitlines(), owners)
            # a removal leaves nothing, not even what Python compiled
            self.assertTrue(os.listdir(f"{root}/usr/share/korva-xbsa/sandbox/__pycache__"))
            output(*dpkg, "--purge", *FILES)
            self.assertEqual(os.listdir(root), ["var"])


class Pages(unittest.TestCase):
    def test_pages(self):
        for page in glob.glob(f"{ROOT}/man/*.?"):
            text = output("man", "--warnings", "-l", page)
            self.assertLessEqual(max(map(len, text.splitlines())), 80, page)
            self.assertNotIn("<standard input>", text, page)


class Zsh(unittest.TestCase):
    def test_completion(self):
        cases = {"sto": "store ", "store x no": "store x note ", "--trace 3:no": "--trace 3:note ",
                 "query no": "query no", "check --informixdir=s": "check --informixdir=sub/"}
        text = typed(["zsh", "-f", "-i"], [
            f"fpath=({ROOT}/completions $fpath)", "autoload -Uz compinit; compinit -u -D",
            "note() { print -r -- $BUFFER >>../out; BUFFER= }", "zle -N note; bindkey '^T' note",
            "".join(f"xbsactl {line}\t\x14" for line in cases) + "exit", ""])
        self.assertEqual(text.splitlines(), [f"xbsactl {line}" for line in cases.values()])


class Units(unittest.TestCase):
    def test_units(self):
        with tempfile.TemporaryDirectory() as folder:
            for path in glob.glob(f"{ROOT}/examples/systemd/*.*"):
                text = re.sub(r"/usr\S*/xbsactl", TOOL, read(path)).replace("/usr/local/bin", folder)
                pathlib.Path(folder, os.path.basename(path)).write_text(text, encoding="utf-8")
            output("install", f"{ROOT}/examples/korva-xbsa-report", folder)
            self.assertEqual(output("sh", "-c", "systemd-analyze verify --man=no *.service *.timer", cwd=folder), "")


class Lintian(unittest.TestCase):
    def test_packages(self):
        output("lintian", "--fail-on", "error,warning", *build("DEB"))


class Rpm(unittest.TestCase):
    def test_packages(self):
        assert_same("RPM")
        self.assertEqual(set(output("rpm", "-qp", "--qf", "%{BUILDHOST}\n%{BUILDTIME}\n[%{FILEMTIMES}\n]",
                                    *build("RPM")).split()), {"localhost", str(NOW)})
        text = output("rpm", "-qpl", *build("RPM"))
        facts = {os.path.basename(path).split("-1.0")[0]: output(
            "rpm", "-qp", "--requires", "--obsoletes", "--provides", path) for path in build("RPM")}
        self.assertEqual(facts.keys(), {"libxbsa1", "libxbsa-devel", "xbsactl", "korva-xbsa",
                                        "korva-xbsa-sandbox"})
        for name, wanted in {"libxbsa1": ["korva-xbsa < 1.0.0-2"],
                             "xbsactl": ["korva-xbsa < 1.0.0-2", "libxbsa1 = 1.0.0-2"],
                             "libxbsa-devel": ["libxbsa1 = 1.0.0-2", "korva-xbsa-devel < 1.0.0-2"],
                             "korva-xbsa": ["libxbsa1 = 1.0.0-2", "xbsactl = 1.0.0-2"]}.items():
            self.assertLessEqual(set(wanted), set(facts[name].splitlines()), name)
        self.assertEqual(set(re.findall(r"^(\S+)\.so", facts["libxbsa1"], re.M)), {"libc", "libxbsa"})
        for file in " ".join(FILES.values()).split():
            moved = file.replace(LIBDIR, "lib64").replace("vendor-completions", "site-functions")
            self.assertIn(f"/usr/{moved}\n", text)


class RpmAsRoot(unittest.TestCase):
    OLD = ("Name: korva-xbsa|Version: 1.0.0|Release: 1|Summary: old|License: MIT|%description||%install|cd %{buildroot}"
           "|mkdir -p usr/bin usr/lib64|echo old | tee usr/bin/xbsactl >usr/lib64/libxbsa.so.1.0.0|%files|"
           "/usr/bin/xbsactl|/usr/lib64/libxbsa.so.1.0.0|")

    def test_upgrade(self):
    
        with tempfile.TemporaryDirectory() as root:
            pathlib.Path(root, "old.spec").write_text(self.OLD.replace("|", "\n"), encoding="utf-8")
            output("rpmbuild", "-bb", "-D", f"_topdir {root}/build", "-D", f"_rpmdir {root}/old",
                   f"{root}/old.spec")
            rpm, new = ["rpm", f"--root={root}/root", "--dbpath=/rpm"], ["libxbsa1", "xbsactl"]
            output(*rpm, "--nodeps", "-i", *glob.glob(f"{root}/old/*/*.rpm"))
            output(*rpm, "--nodeps", "-U", *(path for path in build("RPM") if re.search(f"/({'|'.join(new)})-", path)))
            self.assertEqual(sorted(output(*rpm, "-qa", "--qf", "%{NAME}\n").split()), new)
            output(*rpm, "-V", "--nodeps", *new)
            output(*rpm, "--nodeps", "-e", *new)
            self.assertEqual(output("find", f"{root}/root/usr", "!", "-type", "d"), "")
