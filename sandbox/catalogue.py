"""The sandbox's catalogue: settings, sessions and stored objects in one folder.

The server and every run of the COM utility work on it at the same time. Each change is one
SQLite transaction, and an object's file is complete on disk before its row says so. Rows are
never deleted: a saveset number is given out once and never again.

States of an object: opened (its job is open), storing (bytes arrive), stored (whole, job still
open), good (job closed with status 0: the only one that is handed out), aborted, swept.
"""

import contextlib
import os
import sqlite3
import time

MAX_SAVESET = 2**31 - 1  # clients read the number into a signed 32-bit integer
TAPE, TAPE_ID, BLOCK_SIZE = "SANDBX", 17, 65536
DATABASE, OBJECTS = "catalogue.sqlite", "objects"
COLUMNS = ("saveset restore_id space path job host account size sha256 state opened").split()

SCHEMA = """
CREATE TABLE IF NOT EXISTS setting (key TEXT PRIMARY KEY, value);
CREATE TABLE IF NOT EXISTS session (
    sid TEXT PRIMARY KEY, direction TEXT, account TEXT, host TEXT, secret TEXT, opened REAL,
    state TEXT DEFAULT 'open', object INTEGER);
CREATE TABLE IF NOT EXISTS object (
    segment INTEGER PRIMARY KEY AUTOINCREMENT, saveset INTEGER UNIQUE, restore_id TEXT,
    space TEXT, path TEXT, name TEXT, job TEXT, host TEXT, account TEXT, size INTEGER,
    sha256 TEXT, state TEXT DEFAULT 'opened', opened REAL, stored REAL);
CREATE INDEX IF NOT EXISTS by_job ON object (job, state);
"""


class Refused(Exception):
    """The catalogue says no; the text is meant for the client."""


def sync_folder(path):
    """Make renames in a folder survive a power cut."""
    descriptor = os.open(path, os.O_RDONLY)
    try:
        os.fsync(descriptor)
    finally:
        os.close(descriptor)


class Catalogue:
    """One open connection to the catalogue of a folder."""

    def __init__(self, folder, create=False):
        self.objects = os.path.join(folder, OBJECTS)
        mode = "rwc" if create else "rw"
        database = os.path.join(os.path.abspath(folder), DATABASE).replace("?", "%3f")
        self.db = sqlite3.connect(f"file:{database}?mode={mode}", uri=True, timeout=60,
                                  isolation_level=None)
        self.db.row_factory = sqlite3.Row
        if create:
            os.makedirs(self.objects, exist_ok=True)
            self.db.execute("PRAGMA journal_mode=WAL")
            self.db.executescript(SCHEMA)
        self.db.execute("PRAGMA case_sensitive_like=ON")

    @contextlib.contextmanager
    def change(self):
        """A write transaction: all of it or nothing, one writer at a time."""
        self.db.execute("BEGIN IMMEDIATE")
        try:
            yield self.db
        except BaseException:
            self.db.execute("ROLLBACK")
            raise
        self.db.execute("COMMIT")

    def one(self, sql, *values):
        """The first row of a query, or None."""
        return self.db.execute(sql, values).fetchone()

    def settings(self):
        """The settings that the server wrote when it started in this folder."""
        return {row["key"]: row["value"] for row in self.db.execute("SELECT * FROM setting")}

    def write_settings(self, settings):
        """Replace the settings."""
        with self.change() as db:
            db.execute("DELETE FROM setting")
            db.executemany("INSERT INTO setting VALUES (?, ?)", settings.items())

    def file_of(self, saveset):
        """Where the bytes of a saveset lie."""
        return os.path.join(self.objects, str(saveset))

    # What the COM utility asks for.

    def open_session(self, direction, account, host):
        """Open a session ("b" backup, "r" restore) and return its id."""
        sid = os.urandom(8).hex()
        with self.change() as db:
            db.execute("INSERT INTO session (sid, direction, account, host, opened)"
                       " VALUES (?, ?, ?, ?, ?)", (sid, direction, account, host, time.time()))
        return sid

    def session(self, sid, direction, account):
        """The row of an open session that belongs to the account."""
        row = self.one("SELECT * FROM session WHERE sid = ? AND direction = ? AND account = ?"
                       " AND state = 'open'", sid, direction, account)
        if row is None:
            raise Refused("no such session is open")
        return row

    def attach(self, session, segment, password):
        """Make an object the open job of a session, with the password for its transfer."""
        if session["object"] is not None:
            raise Refused("the session has an open job")
        self.db.execute("UPDATE session SET object = ?, secret = ?, opened = ? WHERE sid = ?",
                        (segment, password, time.time(), session["sid"]))

    def free_number(self, wanted):
        """The wanted saveset number if it is free, else the next one that is."""
        number = wanted if 0 < wanted <= MAX_SAVESET else 1
        if self.one("SELECT 1 FROM object WHERE saveset = ?", number) is None:
            return number
        following = ("SELECT MIN(saveset) + 1 FROM object o WHERE saveset >= ? AND NOT EXISTS"
                     " (SELECT 1 FROM object WHERE saveset = o.saveset + 1)")
        number = self.one(following, number)[0]
        return number if number <= MAX_SAVESET else self.free_number(1)

    def open_backup(self, session_key, job, wanted, name, password):
        """Open a backup job: a new object with a saveset number of its own."""
        space, _, path = name.partition("@")
        with self.change() as db:
            session = self.session(*session_key)
            number = self.free_number(wanted)
            segment = db.execute(
                "INSERT INTO object (saveset, restore_id, space, path, name, job, host, account,"
                " opened) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)",
                (number, "R" + session["sid"][:4], space, path, name, job, session["host"],
                 session["account"], time.time())).lastrowid
            self.attach(session, segment, password)
            return self.one("SELECT * FROM object WHERE segment = ?", segment)

    def open_restore(self, session_key, saveset, name, password):
        """Open a restore job for a good copy; the name may be the pattern that found it."""
        with self.change():
            session = self.session(*session_key)
            row = self.one("SELECT * FROM object WHERE saveset = ? AND state = 'good'"
                           " AND (name = ? OR name LIKE ?)", saveset, name, name)
            if row is None:
                raise Refused("there is no such copy")
            self.attach(session, row["segment"], password)
            return row

    def close_job(self, session_key, saveset_name, status):
        """End the open job; status 0 after a whole transfer makes a backup visible."""
        with self.change() as db:
            session = self.session(*session_key)
            row = self.one("SELECT * FROM object WHERE segment = ?", session["object"])
            names = row and (str(row["saveset"]), f"{row['saveset']}@{row['restore_id']}")
            if row is None or saveset_name not in names:
                raise Refused("the session has no such job")
            db.execute("UPDATE session SET object = NULL, secret = NULL WHERE sid = ?",
                       (session["sid"],))
            good = session["direction"] == "r" or (status == 0 and row["state"] == "stored")
            if session["direction"] == "b":
                db.execute("UPDATE object SET state = ? WHERE segment = ?",
                           ("good" if good else "aborted", row["segment"]))
        if not good:
            self.remove_file(row["saveset"])
        if not good and status == 0:
            raise Refused("the object was not stored whole")

    def close_session(self, session_key):
        """End a session; a job left open in it counts as failed."""
        with self.change() as db:
            session = self.session(*session_key)
            db.execute("UPDATE session SET state = 'closed' WHERE sid = ?", (session["sid"],))
        self.abandon(session["object"], "aborted")

    def newest(self, job, pattern):
        """The newest good copy: of exactly this name, else of a name that the pattern fits."""
        return self.one("SELECT * FROM object WHERE state = 'good' AND job = ?"
                        " AND (name = ? OR name LIKE ?) ORDER BY name = ? DESC, segment DESC",
                        job, pattern, pattern, pattern)

    # What the server asks for.

    def session_of_password(self, account, password):
        """The id of the open session that was given this password, or None."""
        row = self.one("SELECT sid FROM session WHERE account = ? AND secret = ?"
                       " AND state = 'open'", account, password)
        return row and row["sid"]

    def job_object(self, direction, saveset, account, sid):
        """The object of an open job of this account (and of this session, when one is known)."""
        row = self.one("SELECT o.* FROM object o JOIN session s ON s.object = o.segment"
                       " WHERE o.saveset = ? AND s.direction = ? AND s.account = ?"
                       " AND s.state = 'open' AND (? IS NULL OR s.sid = ?)",
                       saveset, direction, account, sid, sid)
        if row is None:
            raise Refused("no open job for this saveset")
        return row

    def advance(self, segment, old, new, **columns):
        """Move an object from one state to the next, with the columns that change on the way."""
        columns["state"] = new
        names = ", ".join(f"{name} = ?" for name in columns)
        with self.change() as db:
            if db.execute(f"UPDATE object SET {names} WHERE segment = ? AND state = ?",
                          (*columns.values(), segment, old)).rowcount != 1:
                raise Refused(f"the object is not {old}")

    def abandon(self, segment, state):
        """Give up an object whose job never ended well; what is good stays good."""
        with self.change() as db:
            row = self.one("SELECT saveset FROM object WHERE segment = ?"
                           " AND state IN ('opened', 'storing', 'stored')", segment)
            if row is not None:
                db.execute("UPDATE object SET state = ? WHERE segment = ?", (state, segment))
        if row is not None:
            self.remove_file(row["saveset"])

    def remove_file(self, saveset):
        """Remove what was received of a saveset."""
        for path in (self.file_of(saveset), self.file_of(saveset) + ".part"):
            with contextlib.suppress(FileNotFoundError):
                os.unlink(path)

    def sweep(self, before, busy=()):
        """Give up the sessions opened before a time, except those with a transfer going on."""
        rows = self.db.execute("SELECT sid, object FROM session WHERE state = 'open'"
                               " AND opened < ?", (before,)).fetchall()
        for row in [row for row in rows if row["object"] not in busy]:
            with self.change() as db:
                db.execute("UPDATE session SET state = 'swept' WHERE sid = ? AND state = 'open'",
                           (row["sid"],))
            self.abandon(row["object"], "swept")

    def sweep_start(self):
        """Give up transfers that an earlier server did not end, and files that nobody owns."""
        for row in self.db.execute("SELECT segment FROM object"
                                   " WHERE state = 'storing'").fetchall():
            self.abandon(row["segment"], "swept")
        kept = {str(row["saveset"]) for row in self.db.execute(
            "SELECT saveset FROM object WHERE state IN ('stored', 'good')")}
        for name in set(os.listdir(self.objects)) - kept:
            os.unlink(os.path.join(self.objects, name))

    def table(self):
        """All objects, oldest first, as lists of texts with a heading."""
        rows = self.db.execute(f"SELECT {', '.join(COLUMNS)} FROM object ORDER BY segment")
        lines = [[("" if value is None else str(value)) for value in row] for row in rows]
        for line in lines:
            line[-1] = time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(float(line[-1])))
        return [COLUMNS] + lines
