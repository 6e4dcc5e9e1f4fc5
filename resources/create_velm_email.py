#!/usr/bin/python3 -I
"""Writes one notification e-mail, ready for `sendmail -t` or femail, to standard output.

create_velm_email.py --recipient ADDR [--subject TEXT] [--message TEXT] [--admin_email ADDR]

The message is plain text in UTF-8, quoted-printable, with To, Subject, From (only with
--admin_email), Date, Message-ID, MIME-Version, Content-Type, Content-Transfer-Encoding and
Auto-Submitted: auto-generated. A missing subject or message is taken as empty. The argument
after an option is its value, even when it begins with "-".

Exit status: 0 with the message on stdout; 64 for a usage error; 65 when --recipient is
missing or --recipient or --admin_email is not exactly one mailbox (name@domain, optionally with
a display name); 70 when the message could not be made; 74 when stdout could not be written.
On failure stdout stays empty and stderr says why.
"""

import argparse
import email.message
import email.policy
import email.utils
import re
import socket
import sys

EX_USAGE = 64
EX_DATAERR = 65
EX_SOFTWARE = 70
EX_IOERR = 74

PROG = "create_velm_email"
OPTIONS = ("--recipient", "--subject", "--message", "--admin_email")

# What str.splitlines() breaks at: a subject stays on one line whatever the caller passed.
LINE_BREAK = re.compile("\r\n|[\n\r\x0b\x0c\x1c\x1d\x1e\x85\u2028\u2029]")
CONTROL = re.compile("[\x00-\x1f\x7f]")
# A lone "." line ends the input of `sendmail -t` run without -i; "=2E" decodes to the same.
LONE_DOT = re.compile(r"^\.(?=\r?\n|\Z)", re.MULTILINE)


class DataError(Exception):
    pass


class Parser(argparse.ArgumentParser):
    def error(self, message):
        sys.stderr.write(f"{PROG}: {message}\n")
        self.print_usage(sys.stderr)
        sys.exit(EX_USAGE)


def one_mailbox(option, value):
    """The address in value when it is exactly one mailbox; DataError otherwise."""
    if not value or not value.strip():
        raise DataError(f"{option} is empty")
    if CONTROL.search(value):
        raise DataError(f"{option} holds a control character")
    try:
        header = email.policy.default.header_factory("To", value)
        groups = header.groups
        defects = header.defects
    except Exception as e:
        raise DataError(f"{option} {value!r} is not an address: {e}")
    if defects:
        raise DataError(f"{option} {value!r} is not an address: {defects[0]}")
    if len(groups) != 1 or groups[0].display_name is not None:
        raise DataError(f"{option} {value!r} must be one address, not a list or group")
    if len(groups[0].addresses) != 1:
        raise DataError(f"{option} {value!r} must be one address")
    address = groups[0].addresses[0]
    if not address.username or not address.domain:
        raise DataError(f"{option} {value!r} has no name@domain")
    if not address.addr_spec.isascii():
        raise DataError(f"{option} {value!r}: the address must be ASCII")
    # The stricter parser of the two must see the same single address, or a mail program
    # reading the header could see another.
    pairs = email.utils.getaddresses([value])
    if len(pairs) != 1 or pairs[0][1] != address.addr_spec:
        raise DataError(f"{option} {value!r} must be one address")
    return address


def one_line(text):
    return LINE_BREAK.sub(" ", text)


def message_id_domain(sender):
    if sender is not None:
        return sender.domain
    # Not socket.getfqdn(): it waits on the resolver, which may not answer.
    host = socket.gethostname()
    return host if re.fullmatch(r"[A-Za-z0-9.-]+", host) else "localhost"


def make_message(args):
    if args.recipient is None:
        raise DataError("--recipient is missing")
    recipient = one_mailbox("--recipient", args.recipient)
    sender = None if args.admin_email is None else one_mailbox("--admin_email", args.admin_email)

    msg = email.message.EmailMessage(policy=email.policy.default)
    msg["To"] = recipient
    msg["Subject"] = one_line(args.subject or "")
    if sender is not None:
        msg["From"] = sender
    msg["Date"] = email.utils.formatdate(localtime=True)
    msg["Message-ID"] = email.utils.make_msgid(domain=message_id_domain(sender))
    msg.set_content(args.message or "", subtype="plain", charset="utf-8", cte="quoted-printable")
    msg["Auto-Submitted"] = "auto-generated"
    msg.set_payload(LONE_DOT.sub("=2E", msg.get_payload()))
    return msg.as_bytes(policy=email.policy.default)


def take_values(argv):
    """The options' values, and the arguments left for argparse. The argument after an option is
    its value whatever it looks like: argparse would take "-x" for an option and drop "--"."""
    values, rest = {}, []
    i = 0
    while i < len(argv):
        name, eq, value = argv[i].partition("=")
        if name in OPTIONS and eq:
            values[name] = value
            i += 1
        elif argv[i] in OPTIONS and i + 1 < len(argv):
            values[argv[i]] = argv[i + 1]
            i += 2
        else:
            rest.append(argv[i])
            i += 1
    return values, rest


def main():
    what, _, rest = __doc__.split("\n\n", 2)
    parser = Parser(prog=PROG, allow_abbrev=False, description=what + "\n\n" + rest,
                    formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--recipient", metavar="ADDR", help="the one address it goes to")
    parser.add_argument("--subject", metavar="TEXT", help="line breaks become spaces")
    parser.add_argument("--message", metavar="TEXT", help="the body")
    parser.add_argument("--admin_email", metavar="ADDR", help="the From address")
    values, rest = take_values(sys.argv[1:])
    args = parser.parse_args(rest)
    for name, value in values.items():
        setattr(args, name[2:], value)
    try:
        data = make_message(args)
    except DataError as e:
        sys.stderr.write(f"{PROG}: {e}\n")
        return EX_DATAERR
    except Exception as e:
        sys.stderr.write(f"{PROG}: cannot make the message: {e}\n")
        return EX_SOFTWARE
    if any(line.rstrip(b"\r") == b"." for line in data.split(b"\n")):
        sys.stderr.write(f"{PROG}: the message would hold a lone '.' line\n")
        return EX_SOFTWARE
    try:
        sys.stdout.buffer.write(data)
        sys.stdout.buffer.flush()
    except OSError as e:
        sys.stderr.write(f"{PROG}: cannot write the message: {e}\n")
        return EX_IOERR
    return 0


if __name__ == "__main__":
    sys.exit(main())
