"""The command line as it is told in four places, and the packages as an administrator uses them."""
import contextlib
import functools
import glob
import os
import pathlib
import pty
import re
import shutil
import subprocess
import tempfile
import unittest

from ftpd import Daemon, serve_behind
from xbsa import ROOT

BUILD, TOOL = os.environ["XBSA_BUILD"], os.environ["XBSA_TOOL"]
ENV = {"PATH": os.environ["PATH"] + ":/usr/sbin:/sbin", "LC_ALL": "C.UTF-8", "TZ": "UTC",
       "SOURCE_DATE_EPOCH": "1000000000", "XBSA_PASSWORD": "secret", "MANWIDTH": "80",
       "TMPDIR": tempfile.gettempdir()}
LIBDIR = f"lib/{os.uname().machine}-linux-gnu"
DOC = "share/doc/korva-xbsa"
FILES = {"korva-xbsa": f"""bin/xbsactl {LIBDIR}/libxbsa.so.1 share/man/man1/xbsactl.1.gz
            share/man/man7/korva-xbsa.7.gz {DOC}/docs/settings.md
            {DOC}/examples/korva-xbsa.logrotate share/bash-completion/completions/xbsactl
            share/zsh/vendor-completions/_xbsactl""",
         "korva-xbsa-dev": f"""include/xbsa.h include/xbsa_session.h {LIBDIR}/libxbsa.so
            share/man/man3/xbsa.3.gz""",
         "korva-xbsa-sandbox": """bin/korva-sandbox bin/korva-xbsa-demo share/korva-xbsa/sandbox/run
            share/man/man1/korva-sandbox.1.gz"""}


def output(*command, **more):
    done = subprocess.run(command, env=ENV, text=True, capture_output=True, check=False, **more)
    assert done.returncode == 0, f"{command}: {done.returncode}\n{done.stdout}{done.stderr}"
    return done.stdout + done.stderr


def read(name):
    return pathlib.Path(ROOT, name).read_text(encoding="utf-8")


def offered(*command):
    return set(re.findall(r"(?:^  |, ?)(-[\w-]+)", output(*command, "--help"), re.M))


def documented(page):
    sections = re.split(r"^\.S[SH] ", read(f"man/{page}").replace("\\-", "-"), flags=re.M)[1:]
    return {text.split()[0]: set(re.findall(r"(?<![\w-])-[a-z-]+",
                                            " ".join(re.findall(r"^\.TP\n(.*)", text, re.M))))
            for text in sections}


def typed(shell, script):
    """Types a script into an interactive shell in a folder with two files and a folder."""
    folder = tempfile.mkdtemp(prefix="typed")
    unittest.addModuleCleanup(shutil.rmtree, folder)
    os.makedirs(f"{folder}/in/sub")
    output("touch", "a b", "note", cwd=f"{folder}/in")
    pid, terminal = pty.fork()
    if pid == 0:
        os.chdir(f"{folder}/in")
        os.execvpe(shell[0], shell, {"TERM": "dumb", "PATH": ENV["PATH"], "HISTFILE": ""})
    os.write(terminal, "\n".join(script).encode())
    with contextlib.suppress(OSError):  # the end of a terminal
        while os.read(terminal, 4096):
            pass
    os.waitpid(pid, 0)
    return read(f"{folder}/out")


def completed(*lines):
    """The arguments that bash makes of each line, after the key that inserts all completions."""
    text = typed(["bash", "--norc", "--noprofile", "-i"], [
        f". {ROOT}/completions/xbsactl.bash", "xbsactl() { printf '%s\\n' \"$@\" =; } >>../out",
        *(f"xbsactl {line}\x1b*" for line in lines), "exit", ""])
    return [part.split("\n")[:-1] for part in text.split("=\n")[:-1]]


class Interface(unittest.TestCase):
    def test_options(self):
        text = output(TOOL, "--help").split("Subcommands:\n")[1].split("\n\n")[0]
        commands = re.findall(r"^  (\w+)", text, re.M)
        everywhere, page = offered(TOOL), documented("xbsactl.1")
        options = {name: offered(TOOL, name) - {"-h", "--help"} for name in commands}
        self.assertEqual({name: page[name] for name in ["OPTIONS", *commands]},
                         {"OPTIONS": everywhere, **options})

        words, general, *lines = completed("", "-", *(f"{name} -" for name in commands))
        self.assertEqual((set(words), set(general)), (set(commands), everywhere))
        self.assertEqual({line[0]: set(line[1:]) for line in lines},
                         {name: options[name] | everywhere for name in commands})
        text = "".join(output(TOOL, name, "--help") for name in ["-h", *commands])
        for line in completed(*(f"{option} trace query --j" for option in  # a value is no command
                                re.findall(r"^  (--[\w-]+) [A-Z](?!xcludes:)", text, re.M))):
            self.assertEqual(line[-1], "--json", line)
        general, rest = read("completions/_xbsactl").split("own general=(")[1].split("\n    )", 1)
        found = {name: set(re.findall(r"['){,](-[\w-]+)(?=[=\[},])", part)) for name, part in
                 [("", general), *re.findall(r"^ {8}(\w+)\)\n(.*?);;", rest, re.M | re.S)]}
        self.assertEqual(found, {"": everywhere, **options})
        self.assertEqual(documented("korva-sandbox.1")["OPTIONS"], offered(f"{ROOT}/sandbox/run"))

    def test_values(self):
        cases = {"store x ": "store|x|a b|note|sub", "store x y ": "store|x|y",
                 "explain n": "explain|n", "--host h:21 trace n": "--host|h:21|trace|note",
                 "--user ": "--user", "--trace ": "--trace|2|3", "--trace 2:n": "--trace|2:note",
                 "store --manifest n": "store|--manifest|note",
                 "verify --manifest=a": "verify|--manifest=a b",
                 "check --informixdir=": "check|--informixdir=sub"}
        self.assertEqual(dict(zip(cases, map("|".join, completed(*cases)))), cases)


@functools.cache
def build(kind, umask="077"):
    folder = tempfile.mkdtemp(prefix="package")
    unittest.addModuleCleanup(shutil.rmtree, folder)
    output("sh", "-c", f'umask {umask}; exec "$@"', "sh", "cpack", "-G", kind, "-B", folder,
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
            listed = re.findall(r"^(\S+) (\S+) +\d+ (.{16}) \./usr/(\S*)", output(
                "dpkg-deb", "-c", path), re.M)
            common = [f"share/doc/{name}/{file}" for file in ("copyright", "changelog.Debian.gz")]
            self.assertLessEqual({*FILES[name].split(), *common}, {file for *_, file in listed})
            for mode, owner, time, file in listed:
                program = re.match(r"bin/|share/korva-xbsa/(demo.sh|sandbox/[^.]*$|tools/servers.sh)", file)
                modes = {"d": "drwxr-xr-x", "l": "lrwxrwxrwx",
                         "-": "-rwxr-xr-x" if program else "-rw-r--r--"}
                self.assertEqual((mode, owner, time), (modes[mode[0]], "root/root",
                                                       "2001-09-09 01:46"), file)
            sums = output("dpkg-deb", "-I", path, "md5sums")
            output("md5sum", "-c", "--strict", "-", cwd=self.root, input=sums)
        path = found["korva-xbsa"]
        self.assertIn("libxbsa 1 korva-xbsa", output("dpkg-deb", "-I", path, "shlibs"))
        self.assertRegex(output("dpkg-deb", "-f", path, "Depends"), "libc6.*libssl3")
        facts = output("readelf", "-WhldS", f"{self.root}/usr/bin/xbsactl")
        self.assertRegex(facts, r"(?s)DYN \(.*GNU_RELRO.*BIND_NOW")
        self.assertNotRegex(facts, r"RPATH|RUNPATH|\.symtab|\.debug")

    def test_same(self):
        assert_same("DEB")
        with tempfile.TemporaryDirectory() as folder:
            shutil.copytree(ROOT, f"{folder}/source",
                            ignore=shutil.ignore_patterns("build", ".git", "__pycache__"))
            output("chmod", "-R", "g+w,o-r", f"{folder}/source")
            for command in ("-S source -B build -DXBSA_TESTS=OFF",
                            "--build build --target documents",
                            "--install build --prefix root --component sandbox-common"):
                output("cmake", *command.split(), cwd=folder)
            output("diff", "-r", f"{folder}/root/share/korva-xbsa",
                   f"{self.root}/usr/share/korva-xbsa")
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

        output("cc", "-Wall", "-Werror", f"-I{usr}/include", "-o", name + ".exe",
               f"{usr}/share/doc/korva-xbsa/examples/store.c", f"-L{usr}/{LIBDIR}", "-lxbsa")
        output("env", f"LD_LIBRARY_PATH={usr}/{LIBDIR}", name + ".exe", where, "backup", "secret",
               "example")
        self.assertEqual(server.stored()["example"], b"Hello from a backup.\n")
        output(f"{usr}/bin/korva-sandbox", "--exec", f"{usr}/bin/xbsactl", "--informix", "store",
               "--space", "rootdbs", "level0", name)

    def test_remove(self):
        """Nothing is left of the packages in a root of their own, nor of what Python compiled."""
        with tempfile.TemporaryDirectory() as root:
            output("mkdir", "-p", f"{root}/var/lib/dpkg/info", f"{root}/var/lib/dpkg/updates")
            output("touch", f"{root}/var/lib/dpkg/status")
            dpkg = ["dpkg", f"--root={root}", f"--log={root}/var/log", "--force-not-root",
                    "--force-depends", "--force-script-chrootless", "--path-include=*"]
            output(*dpkg, "--install", *self.packages)
            output(f"{root}/usr/bin/xbsactl", "--version")
            self.assertTrue(os.listdir(f"{root}/usr/share/korva-xbsa/sandbox/__pycache__"))
            output(*dpkg, "--purge", *FILES)
            self.assertEqual(os.listdir(root), ["var"])


class Pages(unittest.TestCase):
    def test_pages(self):
        for page in glob.glob(f"{ROOT}/man/*.?"):
            text = output("man", "--warnings", "-l", page)
            self.assertIn("SEE ALSO", text)
            self.assertLessEqual(max(map(len, text.splitlines())), 80, page)
            self.assertNotIn("<standard input>", text, page)


class Zsh(unittest.TestCase):
    def test_completion(self):
        cases = {"sto": "store ", "store --sta": "store --status=", "store x no": "store x note ",
                 "--trace 3:no": "--trace 3:note ", "query no": "query no",
                 "check --informixdir=s": "check --informixdir=sub/",
                 "--host h tra": "--host h trace "}
        text = typed(["zsh", "-f", "-i"], [
            f"fpath=({ROOT}/completions $fpath)", "autoload -Uz compinit; compinit -u -D",
            "note() { print -r -- $BUFFER >>../out; BUFFER= }", "zle -N note; bindkey '^T' note",
            "".join(f"xbsactl {line}\t\x14" for line in cases) + "exit", ""])
        self.assertEqual(text.splitlines(), [f"xbsactl {line}" for line in cases.values()])


class Lintian(unittest.TestCase):
    def test_packages(self):
        output("lintian", "--fail-on", "error", *build("DEB"))


class Rpm(unittest.TestCase):
    def test_packages(self):
        assert_same("RPM")
        self.assertEqual({output("rpm", "-qp", "--qf", "%{BUILDHOST} %{BUILDTIME}", path)
                          for path in build("RPM")}, {"localhost 1000000000"})
        text = "".join(output("rpm", "-qpl", path) for path in build("RPM"))
        for file in " ".join(FILES.values()).split():
            moved = file.replace(LIBDIR, "lib64").replace("vendor-completions", "site-functions")
            self.assertIn(f"/usr/{moved}\n", text)
