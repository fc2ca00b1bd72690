"""A simulated phone driven through zq-devsim as a person would. Text is Latin-1 throughout, so
that every byte of a name, a file or a journal record is one character."""
import json
import os
import shutil
import subprocess
import tempfile

DEVSIM = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../devsim/zq-devsim")


def run(argv, cwd=None, **env):
    """|argv| in |cwd| with |env| added to the environment: its status, output and errors."""
    done = subprocess.run(argv, cwd=cwd, capture_output=True, env=dict(os.environ, **env),
                          check=False)
    return done.returncode, done.stdout.decode("latin-1"), done.stderr.decode("latin-1")


def slurp(path):
    """The contents of |path|, or None when it cannot be read (an unset property)."""
    try:
        with open(path.encode("latin-1"), "rb") as f:
            return f.read().decode("latin-1")
    except OSError:
        return None


def entries(folder):
    return sorted(n.decode("latin-1") for n in os.listdir(folder.encode("latin-1")))


class Device:
    """A phone of plain folders, or with |ext4| one whose /data and log partition are ext4 images,
    in a folder of its own in the temporary folder."""

    def __init__(self, daemon, ext4=False):
        self.daemon, self.folder = daemon, tempfile.mkdtemp()
        self.root, self.pulls = os.path.join(self.folder, "phone"), 0
        self.sim("init", *(["--ext4"] if ext4 else []))

    def path(self, relative):
        return os.path.join(self.root, relative)

    def sim(self, verb, *args):
        """zq-devsim |verb| on this phone with |args|, which must succeed."""
        status, _, err = run([DEVSIM, verb, self.root, *args])
        assert status == 0, f"zq-devsim {verb} {' '.join(args)}: {err}"

    def panic(self, *options, kmsg=None):
        """A panic of small evidence; with |kmsg|, the text its last kernel log holds."""
        if kmsg is not None:
            options += ("--kmsg", os.path.join(self.folder, "kmsg"))
            with open(options[-1], "wb") as f:
                f.write(kmsg.encode("latin-1"))
        self.sim("panic", "--kmsg-size", "64", "--db-size", "96", *options)

    def boot(self, *options):
        """zq-devsim boot with |options|, in UTC: its status and errors."""
        status, _, err = run(["timeout", "120", DEVSIM, "boot", self.root, *options],
                             ZQ_MRDUMP_COLLECT=self.daemon, TZ="UTC")
        return status, err

    def pull(self, phone_path):
        """The phone's |phone_path| on the workstation, copied out of its ext4 images if it has
        them."""
        if not os.path.isdir(self.path("images")):
            return self.path(phone_path[1:])
        self.pulls += 1
        copy = os.path.join(self.folder, f"pulled.{self.pulls}")
        self.sim("pull", phone_path, copy)
        return copy

    def copy_to(self, other):
        shutil.rmtree(other.root)
        subprocess.run(["cp", "-a", "--sparse=always", self.root, other.root], check=True)

    def prop(self, name):
        return slurp(self.path("properties/" + name))

    def journal(self):
        """Its records; fields that a record does not carry are absent. init's are pid 1's."""
        with open(self.path("journal"), "rb") as f:
            return [json.loads(line) for line in f]
