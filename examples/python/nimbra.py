"""A small client of Nimbra access-control panels. Copy this file into your application.

    panel = nimbra.Panel("192.168.77.10", "operator", "operate!1")
    for door in panel.rows("GetDoorInfoEx"):
        print(door["DoorNo"], door["Name"])
    panel.ask("SetDoorLock", Port=1, Control=2)

The commands and their keys are those of the protocol. Every value in a response is a text; Url
has its double quotes. User images
are not supported.
"""

import re
import socket
import time

# The pairs of each record, in the order of the protocol. Values are not quoted and may hold "&" and
# "=", so a line can only be split at the keys that it is known to have.
LIST = "Total Offset Count".split()
RECORDS = {
    "Hello": ["Key"],
    "EventLog": "EventNo EventTime DeviceType DevicePort DeviceName EventCode EventDesc CardNo UserNo"
                " UserName VideoTag".split(),
    "EventCode": "Code Desc".split(),
    "LiveVideoInfo": "Name Type Address Port Username Password Channel Url".split(),
    "PlayVideoInfo": "Name Type Address Port Username Password Channel Url".split(),
    "DoorInfo": "DoorNo Name Status".split(),
    "DoorLock": ["Status"],
    "AuxOutput": ["Status"],
    "UserInfo": "UserNo FirstName MiddleName LastName PhoneNumber CellPhone Email Ada Exempt"
                " ThreatLevel".split(),
    "CardFormat": "FormatNo Name Default".split(),
    "CardInfo": "CardNo UserNo FormatNo FormatName CardNumber KeyNumber CardStatus CardType"
                " NeverExpire ActDate ExpDate".split(),
    "AccessLevel": "SelectType LevelNo Name".split(),
    "CardAccessLevel": "SelectType AccessLevelNo".split(),
    "ThreatInfo": "Level Desc".split(),
    "ThreatLevel": ["ThreatLevel"],
}
# The panel finds a command anywhere in a line.
COMMAND = re.compile(r"(Hello|Login|Heartbeat|(Get|Set|Add|Del)[A-Za-z]+)\?", re.IGNORECASE)
# These lists ignore Offset and Limit: the panel sends all rows.
ALL_AT_ONCE = ("GetCardFormatEx", "GetAccessLevelEx", "GetThreatInfoEx")
# These texts are compared as they are; in all others the panel requires doubled quotes.
RAW = ("Password", "FileName", "AccessLevelNo")


class PanelError(Exception):
    """The panel has refused a request, has failed, or has found nothing."""

    def __init__(self, word, result):
        super().__init__(f"{word}: Result={result}")
        self.result = result


def parse(line, keys):
    """Splits the pairs of a line at the known keys, from its end."""
    values = {}
    rest = "&" + line
    for key in reversed(keys):
        before, found, value = rest.rpartition(f"&{key}=")
        values[key] = value if found else ""
        rest = before if found else rest
    return values


def pair(key, value):
    """A pair of a request. A value that the protocol cannot carry raises ValueError."""
    text = str(value)
    if not text or set("&\n\0") & set(text):
        raise ValueError(f"{key}: a value cannot be empty or hold '&', a line feed or a zero byte")
    if COMMAND.search(text):
        raise ValueError(f"{key}: the panel would take a part of the value for a command")
    return f"{key}={text if key in RAW else text.replace(chr(39), chr(39) * 2)}"


class Panel:
    """A session with a panel. The panel ends it after 10 seconds without a request; it is then opened
    again, but a change is not repeated: it may have been made."""

    def __init__(self, host, user, password, port=9000):
        self._address = (host, port)
        self._login = {"Username": user, "Password": password}
        self._socket = None
        self._connect()

    def ask(self, word, **keys):
        """Sends a request. Returns the pairs of its response and its rows, or raises PanelError."""
        if time.monotonic() - self._last_use > 8:
            self._connect()
        try:
            return self._exchange(word, keys)
        except OSError:
            if not word.startswith("Get"):
                raise
        self._connect()
        return self._exchange(word, keys)

    def rows(self, word, **filters):
        """All rows of a list, page by page. An empty list looks like a failure and gives no rows."""
        offset = 0
        while True:
            # A page after the end fails too. So a later page begins with the last row of the one before.
            overlap = 1 if offset else 0
            limit = 200 + overlap
            page = {} if word in ALL_AT_ONCE else {"Offset": offset - overlap, "Limit": limit}
            try:
                _, rows = self.ask(word, **filters, **page)
            except PanelError as error:
                if error.result == 1 and not offset:
                    return
                raise
            yield from rows[overlap:]
            offset += len(rows) - overlap
            if not page or len(rows) < limit:
                return

    def newest_event(self):
        """The number of the newest event. The login was one: a log without events cannot be read."""
        for event in self.rows("GetEventLogEx"):
            return int(event["EventNo"])
        raise PanelError("GetEventLogEx", 1)

    def follow(self, last):
        """Yields the events after number `last`, oldest first, without an end."""
        while True:
            try:
                new = self._events_after(last)
            except PanelError as error:
                if error.result != 1:  # 1: the panel keeps its database locked
                    raise
                new = []
            for event in reversed(new):
                last = int(event["EventNo"])
                yield event
            time.sleep(1)

    def _events_after(self, last):
        """The events after number `last`, newest first."""
        new = []
        for event in self.rows("GetEventLogEx"):
            number = int(event["EventNo"])
            if number <= last:
                break
            # An event that comes meanwhile moves the older ones to later pages.
            if not new or number < int(new[-1]["EventNo"]):
                new.append(event)
        return new

    def close(self):
        self._socket.close()

    def _connect(self):
        if self._socket:
            self.close()
        self._socket = socket.create_connection(self._address, timeout=15)
        self._input = self._socket.makefile("rb")
        self._exchange("Hello", {})
        self._exchange("Login", self._login)

    def _exchange(self, word, keys):
        line = f"{word}?" + "&".join(pair(key, value) for key, value in keys.items())
        # One write: the panel drops what it has received of a line that takes too long.
        self._socket.sendall(line.encode() + b"\n")
        record = RECORDS.get(word.removeprefix("Get").removesuffix("Ex"), [])
        is_list = word.endswith("Ex")
        header = parse(self._line().partition("?")[2], ["Result"] + (LIST if is_list else record))
        self._last_use = time.monotonic()
        if header["Result"] != "0":
            raise PanelError(word, int(header["Result"]))
        return header, [parse(self._line(), record) for _ in range(int(header["Count"]) if is_list else 0)]

    def _line(self):
        line = self._input.readline()
        if not line.endswith(b"\n"):
            raise ConnectionError("the panel has closed the connection")
        return line.decode(errors="replace").rstrip("\n")
