"""The sandbox's catalogue: sessions and stored objects, and the settings of a server's folder.

Servers and every run of the COM utility work on it at the same time. Each change is one
transaction, and an object's bytes are safe in the store before its row says so. Rows are never
deleted, so that a saveset number is used only once. Each row has an owner, the server of one
folder: unfinished objects of a dead owner are swept, those of a living one are left alone.

States of an object: opened (its job is open), storing (bytes arrive), stored (whole, job still
open), good (job closed with status 0: only these are offered), aborted, swept.
"""

import contextlib
import functools
import json
import os
import time

import database
import private
from database import Refused

MAX_SAVESET = MAX_OWNER = 2**31 - 1  # clients read the number into a signed 32-bit integer
TAPE, TAPE_ID, BLOCK_SIZE = "SANDBX", 17, 65536
SETTINGS = "settings"
COLUMNS = ("saveset restore_id space path job host account size sha256 state opened").split()
FITS = "(name = ? OR name LIKE ? ESCAPE '\x1f')"  # a name contains no control character

SCHEMA = """
CREATE TABLE IF NOT EXISTS session (
    sid TEXT PRIMARY KEY, direction TEXT, account TEXT, host TEXT, secret TEXT,
    opened DOUBLE PRECISION, state TEXT DEFAULT 'open', object BIGINT, owner BIGINT);
CREATE TABLE IF NOT EXISTS object (
    segment {serial}, saveset BIGINT UNIQUE, restore_id TEXT, space TEXT, path TEXT, name TEXT,
    job TEXT, host TEXT, account TEXT, size BIGINT, sha256 TEXT, state TEXT DEFAULT 'opened',
    opened DOUBLE PRECISION, owner BIGINT);
CREATE INDEX IF NOT EXISTS by_job ON object (job, state)
"""


def new_owner():
    """A random number, probably unique among servers."""
    return 1 + int.from_bytes(os.urandom(4), "big") % MAX_OWNER


class Catalogue:
    """One open connection to the catalogue of a folder."""

    def __init__(self, folder, settings=None):
        """Open it with the settings of a new server, or with those in the folder."""
        self.folder, self.settings = folder, settings or self.read_settings(folder)
        url = self.settings.get("catalogue")
        create = settings is not None
        self.db = database.Postgres(url) if url else database.Sqlite(folder, create)
        if create:
            self.make_tables()
            settings["owner"] = self.read_settings(folder).get("owner") or new_owner()
            while not self.db.show(settings["owner"]):  # a folder copy or a ghost has it
                settings["owner"] = new_owner()

    def make_tables(self):
        """Create what is missing."""
        with self.change() as run:
            for statement in SCHEMA.format(serial=self.db.serial).split(";"):
                run(statement)
            for table in ("session", "object"):
                if not self.db.has_column(table, "owner"):
                    run(f"ALTER TABLE {table} ADD COLUMN owner BIGINT")

    @staticmethod
    def read_settings(folder):
        """The settings that a server wrote when it started in this folder."""
        with contextlib.suppress(FileNotFoundError):
            with open(os.path.join(folder, SETTINGS), encoding="utf-8") as file:
                return json.load(file)
        return {}

    def write_settings(self):
        """Write the address and settings of this server for the COM utility."""
        path = os.path.join(self.folder, SETTINGS)
        private.write(path + ".new", json.dumps(self.settings))
        os.replace(path + ".new", path)

    @functools.cached_property
    def store(self):
        """Where the bytes are; most runs of the COM utility do not need it."""
        import stores
        return stores.open_store(self.folder, self.settings.get("store"))

    def close(self):
        """End the connection, after pending removals."""
        if "store" in vars(self):
            self.store.close()
        self.db.close()

    @contextlib.contextmanager
    def change(self):
        """A write transaction: all of it or nothing, one writer at a time."""
        with self.db.lock:
            self.db.run(self.db.begin)
            try:
                yield self.db.run
                self.db.run("COMMIT")
            except BaseException:
                with contextlib.suppress(Refused):  # the first error is the one to report
                    self.db.run("ROLLBACK")
                raise

    def one(self, sql, *values):
        """The first row of a query, or None."""
        return next(iter(self.db.run(sql, values)), None)

    # For the COM utility.

    def open_session(self, direction, account, host):
        """Open a session ("b" backup, "r" restore) and return its id."""
        sid = os.urandom(8).hex()
        with self.change() as run:
            run("INSERT INTO session (sid, direction, account, host, opened, owner)"
                " VALUES (?, ?, ?, ?, ?, ?)",
                (sid, direction, account, host, time.time(), self.settings["owner"]))
        return sid

    def session(self, sid, direction, account):
        """The row of an open session that belongs to the account."""
        row = self.one("SELECT * FROM session WHERE sid = ? AND direction = ? AND account = ?"
                       " AND state = 'open'", sid, direction, account)
        if row is None:
            raise Refused("this session is not open")
        return row

    def attach(self, session, segment, password):
        """Make an object the open job of a session, with the password for its transfer."""
        if session["object"] is not None:
            raise Refused("the session already has an open job")
        self.db.run("UPDATE session SET object = ?, secret = ?, opened = ? WHERE sid = ?",
                    (segment, password, time.time(), session["sid"]))

    def free_number(self, wanted):
        """The wanted saveset number if it is free, else the next free one."""
        number = wanted if 0 < wanted <= MAX_SAVESET else 1
        if self.one("SELECT 1 FROM object WHERE saveset = ?", number) is None:
            return number
        following = ("SELECT MIN(saveset) + 1 AS number FROM object o WHERE saveset >= ?"
                     " AND NOT EXISTS (SELECT 1 FROM object WHERE saveset = o.saveset + 1)")
        number = self.one(following, number)["number"]
        return number if number <= MAX_SAVESET else self.free_number(1)

    def open_backup(self, session_key, job, wanted, name, password):
        """Open a backup job: a new object with a new saveset number."""
        space, _, path = name.partition("@")
        with self.change() as run:
            session = self.session(*session_key)
            number = self.free_number(wanted)
            run("INSERT INTO object (saveset, restore_id, space, path, name, job, host, account,"
                " opened, owner) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
                (number, "R" + session["sid"][:4], space, path, name, job, session["host"],
                 session["account"], time.time(), self.settings["owner"]))
            row = self.one("SELECT * FROM object WHERE saveset = ?", number)
            self.attach(session, row["segment"], password)
            return row

    def open_restore(self, session_key, saveset, name, password):
        """Open a restore job for a good copy; the name may be the pattern that found it."""
        with self.change():
            session = self.session(*session_key)
            row = self.one("SELECT * FROM object WHERE saveset = ? AND state = 'good'"
                           f" AND {FITS}", saveset, name, name)
            if row is None:
                raise Refused("this copy does not exist")
            self.attach(session, row["segment"], password)
            return row

    def close_job(self, session_key, saveset_name, status):
        """End the open job; status 0 after a whole transfer makes a backup visible."""
        with self.change() as run:
            session = self.session(*session_key)
            row = self.one("SELECT * FROM object WHERE segment = ?", session["object"])
            names = row and (str(row["saveset"]), f"{row['saveset']}@{row['restore_id']}")
            if row is None or saveset_name not in names:
                raise Refused("the session does not have this job")
            run("UPDATE session SET object = NULL, secret = NULL WHERE sid = ?",
                (session["sid"],))
            good = session["direction"] == "r" or (status == 0 and row["state"] == "stored")
            if session["direction"] == "b":
                run("UPDATE object SET state = ? WHERE segment = ?",
                    ("good" if good else "aborted", row["segment"]))
        if not good:
            self.store.remove(row["saveset"])
        if not good and status == 0:
            raise Refused("the object was not stored completely")

    def close_session(self, session_key):
        """End a session; a job left open in it counts as failed."""
        with self.change() as run:
            session = self.session(*session_key)
            run("UPDATE session SET state = 'closed' WHERE sid = ?", (session["sid"],))
        self.abandon(session["object"], "aborted")

    def newest(self, job, pattern):
        """The newest good copy of exactly this name, else of a name that matches the pattern."""
        return self.one(f"SELECT * FROM object WHERE state = 'good' AND job = ? AND {FITS}"
                        " ORDER BY name = ? DESC, segment DESC LIMIT 1",
                        job, pattern, pattern, pattern)

    # For the server.

    def session_of_password(self, account, password):
        """The id of the open session that was given this password, or None."""
        row = self.one("SELECT sid FROM session WHERE account = ? AND secret = ?"
                       " AND state = 'open'", account, password)
        return row and row["sid"]

    def job_object(self, direction, saveset, account, sid):
        """The object of an open job of this account (and of this session, when one is known)."""
        row = self.one("SELECT o.* FROM object o JOIN session s ON s.object = o.segment"
                       " WHERE o.saveset = ? AND s.direction = ? AND s.account = ?"
                       " AND s.state = 'open' AND s.owner = ? AND (? IS NULL OR s.sid = ?)",
                       saveset, direction, account, self.settings["owner"], sid, sid)
        if row is None:
            raise Refused("no open job for this saveset")
        return row

    def advance(self, segment, old, new, **columns):
        """Move an object from one state to the next, with the columns that change on the way."""
        columns["state"] = new
        names = ", ".join(f"{name} = ?" for name in columns)
        with self.change() as run:
            if run(f"UPDATE object SET {names} WHERE segment = ? AND state = ?",
                   (*columns.values(), segment, old)) != 1:
                raise Refused(f"the object is not {old}")

    def abandon(self, segment, state, unfinished=("opened", "storing", "stored")):
        """Abandon an object whose job did not end well; good objects stay good."""
        with self.change() as run:
            run("UPDATE object SET state = ? WHERE segment = ?"
                f" AND state IN ({', '.join('?' * len(unfinished))})",
                (state, segment, *unfinished))
            row = self.one("SELECT saveset FROM object WHERE segment = ?"
                           " AND state IN ('aborted', 'swept')", segment)
        if row is not None:
            self.store.remove(row["saveset"])

    def sweep(self, before, ask_busy):
        """Abandon what dead servers left unfinished, and sessions opened before a time, except
        those of other living servers and of our own transfers, which ask_busy() returns."""
        storing = self.db.run("SELECT segment, owner FROM object WHERE state = 'storing'")
        sessions = self.db.run("SELECT sid, object, owner FROM session WHERE state = 'open'"
                               " AND opened < ?", (before,))
        # Asked after the rows were read, so that the answers cover every owner and transfer in
        # them. A transfer that has ended by then is no longer storing.
        others = self.db.living(self.settings["owner"]) - {self.settings["owner"]}
        busy = ask_busy()
        for row in storing:
            if row["owner"] not in others and row["segment"] not in busy:
                self.abandon(row["segment"], "swept", ("storing",))
        for row in sessions:
            if row["owner"] not in others and row["object"] not in busy:
                with self.change() as run:
                    run("UPDATE session SET state = 'swept' WHERE sid = ? AND state = 'open'",
                        (row["sid"],))
                self.abandon(row["object"], "swept")

    def check_store(self):
        """Remove abandoned objects that could not be removed at the time. Objects without a row are
        good copies from a lost catalogue: no query would offer them."""
        names = {name for name in self.store.names() if name.isascii() and name.isdigit()}
        rows = self.db.run("SELECT saveset, state FROM object")
        unknown = names - {str(row["saveset"]) for row in rows}
        if unknown:
            raise Refused(f"the catalogue does not know {len(unknown)} of the stored objects"
                          f" ({min(unknown, key=int)}...): was it emptied or replaced?\n"
                          "hint: restore the catalogue from a backup, or start with a new folder")
        for row in rows:
            if row["state"] in ("aborted", "swept") and str(row["saveset"]) in names:
                self.store.remove(row["saveset"])

    def table(self):
        """All objects, oldest first, as lists of texts with a heading."""
        rows = self.db.run(f"SELECT {', '.join(COLUMNS)} FROM object ORDER BY segment")
        lines = [["" if value is None else str(value) for value in row.values()] for row in rows]
        for line in lines:
            line[-1] = time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(float(line[-1])))
        return [COLUMNS] + lines
