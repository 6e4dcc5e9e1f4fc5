"""What the mail stand-ins (sendmail, velm-simsmtp) share: the sandbox Maildir they file messages
into, the file that scripts their failures, and reading a raw message's header.

Maildir <root>/var/mail/: each accepted message is written to tmp/ and renamed into new/ as
<seconds>.<pid>_<n>.<host>, with "Received:" and "Envelope-to: <recipients>" put before the
message as it came.

Failure-mode file <root>/sim/mail.plist, read for every message; missing means normal work. An
XML plist dictionary:
  mode      "normal", "fail", "warn" or "hang" (what each means is up to the program)
  status    integer: sendmail's exit status for "fail" (default 75)
  smtpCode  integer: velm-simsmtp's reply to DATA for "fail", 400-599 (default 451)
"""

import email.utils
import itertools
import os
import plistlib
import re
import socket
import time

MAILDIR = "var/mail"
MODE_FILE = "sim/mail.plist"
MODES = ("normal", "fail", "warn", "hang")
RECIPIENT_FIELDS = (b"to", b"cc", b"bcc")
# What getaddresses() lets through but no mail system takes as an address.
ADDRESS = re.compile(r'("[^"\\\r\n]*"|[^\s<>()\[\],;:"@]+)(@[^\s<>()\[\],;:"@]+)?')

_sequence = itertools.count(1)


class MailError(Exception):
    pass


def read_mode(root):
    """The failure-mode dictionary, with "mode" always there and valid."""
    path = os.path.join(root, MODE_FILE)
    try:
        with open(path, "rb") as f:
            settings = plistlib.load(f)
    except FileNotFoundError:
        return {"mode": "normal"}
    except Exception as e:
        raise MailError(f"{path}: {e}")
    if not isinstance(settings, dict):
        raise MailError(f"{path}: not a dictionary")
    mode = settings.setdefault("mode", "normal")
    if mode not in MODES:
        raise MailError(f"{path}: mode {mode!r} is none of {', '.join(MODES)}")
    for key in ("status", "smtpCode"):
        if key in settings and (type(settings[key]) is not int):
            raise MailError(f"{path}: {key} is not an integer")
    return settings


def split_header(data):
    """The header fields as [lower-case name, lines with their ends], and the rest."""
    fields = []
    lines = data.splitlines(keepends=True)
    i = 0
    while i < len(lines):
        line = lines[i]
        if line in (b"\n", b"\r\n"):
            break
        if line[:1] in (b" ", b"\t") and fields:
            fields[-1][1].append(line)
        elif b":" in line:
            fields.append([line.split(b":", 1)[0].strip().lower(), [line]])
        else:
            break
        i += 1
    return fields, b"".join(lines[i:])


def recipients(fields):
    """The addresses of the To, Cc and Bcc fields, each once."""
    found = []
    for name, lines in fields:
        if name not in RECIPIENT_FIELDS:
            continue
        value = b"".join(lines).split(b":", 1)[1].decode("utf-8", "surrogateescape")
        value = re.sub(r"\r?\n(?=[ \t])", "", value).strip()
        if not value:
            continue
        pairs = email.utils.getaddresses([value])
        addresses = [addr for _, addr in pairs if addr]
        # The strict parser gives ('', '') for a list it cannot read whole.
        if (not addresses or len(addresses) != len(pairs)
                or not all(ADDRESS.fullmatch(a) for a in addresses)):
            shown = lines[0].split(b":", 1)[0].decode("ascii", "replace")
            raise MailError(f"cannot parse the {shown} header: {value!r}")
        found += [a for a in addresses if a not in found]
    return found


def without_fields(fields, body, drop):
    return b"".join(b"".join(lines) for name, lines in fields if name not in drop) + body


def _host_name():
    # Maildir's own escapes for the two characters a file name here can't hold.
    return socket.gethostname().replace("/", "\\057").replace(":", "\\072") or "localhost"


def deliver(root, message, envelope_to, received):
    """Files message into the Maildir; returns its path under new/."""
    eol = b"\r\n" if message.split(b"\n", 1)[0].endswith(b"\r") else b"\n"
    top = (f"Received: {received}".encode("utf-8") + eol +
           f"Envelope-to: {', '.join(envelope_to)}".encode("utf-8") + eol)
    maildir = os.path.join(root, MAILDIR)
    for sub in ("tmp", "new", "cur"):
        os.makedirs(os.path.join(maildir, sub), exist_ok=True)
    while True:
        name = f"{int(time.time())}.{os.getpid()}_{next(_sequence)}.{_host_name()}"
        temporary = os.path.join(maildir, "tmp", name)
        try:
            fd = os.open(temporary, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600)
            break
        except FileExistsError:
            continue
    try:
        with os.fdopen(fd, "wb") as f:
            f.write(top + message)
            f.flush()
            os.fsync(f.fileno())
        final = os.path.join(maildir, "new", name)
        os.rename(temporary, final)
    except BaseException:
        try:
            os.unlink(temporary)
        except OSError:
            pass
        raise
    return final


def received_date():
    return email.utils.formatdate(localtime=True)
