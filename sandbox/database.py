"""The databases that can hold a catalogue: a SQLite file, or PostgreSQL for several servers."""

import contextlib
import os
import sqlite3

FILE = "catalogue.sqlite"
PATIENCE = 60  # seconds to wait for another writer
LOCKS = 0x4B4F5256  # the class of our advisory locks; number 0 is the writer's


class Refused(Exception):
    """The catalogue refuses, or is not available; the text is meant for the client."""


class Database:
    """What both have in common: "?" marks a value, and rows are dictionaries."""

    mark, errors = "?", ()
    lock = contextlib.nullcontext()  # the server, which has threads, sets a real one

    def run(self, sql, values=()):
        """The rows that a statement yields, or the number of rows that it changed."""
        try:
            with self.lock, contextlib.closing(self.cursor()) as cursor:
                cursor.execute(sql.replace("?", self.mark), values)
                if cursor.description is None:
                    return cursor.rowcount
                names = [column[0] for column in cursor.description]
                return [dict(zip(names, row)) for row in cursor.fetchall()]
        except self.errors as error:
            raise Refused("the catalogue failed: " + " ".join(str(error).split())) from error

    def close(self):
        """End the connection."""
        self.connection.close()


class Sqlite(Database):
    """A file in the sandbox's folder, for its server and the COM utility beside it."""

    begin, serial = "BEGIN IMMEDIATE", "INTEGER PRIMARY KEY AUTOINCREMENT"
    errors = (sqlite3.Error,)

    def __init__(self, folder, create):
        path = os.path.join(os.path.abspath(folder), FILE)
        url = path.replace("%", "%25").replace("?", "%3f").replace("#", "%23")
        try:
            self.connection = sqlite3.connect(f"file:{url}?mode={'rwc' if create else 'rw'}",
                                              uri=True, timeout=PATIENCE, isolation_level=None,
                                              check_same_thread=False)
        except self.errors as error:
            raise Refused(f"{path}: {error}") from error
        self.cursor = self.connection.cursor
        if create:
            self.run("PRAGMA journal_mode=WAL")
        self.run("PRAGMA case_sensitive_like=ON")

    def has_column(self, table, column):
        """Whether a table, perhaps from an earlier version, has a column."""
        return any(row["name"] == column for row in self.run(f"PRAGMA table_info({table})"))

    @staticmethod
    def show(_owner):
        """No other server uses this file."""
        return True

    @staticmethod
    def living(owner):
        """A folder has one server at a time."""
        return {owner}


class Postgres(Database):
    """A database that servers on several machines share; a lost connection is opened again."""

    begin, serial = f"BEGIN; SELECT pg_advisory_xact_lock({LOCKS}, 0)", "BIGSERIAL PRIMARY KEY"
    mark = "%s"

    def __init__(self, url):
        try:
            import psycopg2
        except ImportError:
            import site
            site.main()  # the COM utility starts without the system's packages
            try:
                import psycopg2
            except ImportError as error:
                raise Refused("python3-psycopg2 is missing: apt-get install python3-psycopg2"
                              ) from error
        self.driver, self.errors = psycopg2, (psycopg2.Error,)
        self.url, self.connection, self.shown = url, None, False

    def cursor(self):
        """A cursor on the open connection, or on a new one."""
        if self.connection is None or self.connection.closed:
            self.shown = False
            self.connection = self.driver.connect(self.url, client_encoding="utf8",
                                                  connect_timeout=PATIENCE // 6)
            self.connection.autocommit = True
            self.connection.cursor().execute(
                f"SET statement_timeout = '{PATIENCE}s';"
                f" SET idle_in_transaction_session_timeout = '{PATIENCE}s'")
        return self.connection.cursor()

    @staticmethod
    def has_column(_table, _column):
        """Earlier versions did not use PostgreSQL."""
        return True

    def show(self, owner):
        """Mark a server as living with a lock that ends with its connection; False if another
        connection holds it."""
        if not self.shown:
            lock = self.run("SELECT pg_try_advisory_lock(?, ?) AS held", (LOCKS, owner))
            self.shown = lock[0]["held"]
        return self.shown

    def living(self, owner):
        """All living servers, including this one."""
        self.show(owner)
        return {row["objid"] for row in self.run(
            "SELECT objid::bigint FROM pg_locks WHERE locktype = 'advisory' AND classid = ?"
            " AND database = (SELECT oid FROM pg_database WHERE datname = current_database())",
            (LOCKS,))}
