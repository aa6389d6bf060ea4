"""GDB: shows error chains, threads, processes, sockets and texts of libvesk as a reader wants to see them.

    (gdb) source vesk.py
    (gdb) vesk-chain          the error chain of the selected thread, of a core dump as well
    (gdb) print thread        {"worker", RUNNING}

The Debian package libvesk-dev installs this file where GDB finds it by itself.
"""
import gdb
import gdb.printing


def text_of(pointer):
    """Returns the text behind a char const*, or a word for none."""
    return pointer.string("utf-8", "replace") if int(pointer) != 0 else "(none)"


def enumerator(value):
    """Returns the name of an enumerator without its scope."""
    return str(value).rpartition("::")[2]


def atomic(value):
    """Returns what a std::atomic holds, or the first field of its kin."""
    while value.type.strip_typedefs().code == gdb.TYPE_CODE_STRUCT:
        fields = [field for field in value.type.strip_typedefs().fields() if hasattr(field, "bitpos")]  # Not static.
        value = value[fields[-1]]
    return value


def report(value):
    """Returns a report as getReasonList prints it."""
    return "%s:%d: %s" % (text_of(value["file"]), int(value["line"]), value["m_text"].string("utf-8", "replace"))


def chain_of(head):
    """Returns the reports of a chain, the highest level first."""
    rows = []
    while int(head) != 0 and len(rows) < 1000:
        value = head.dereference()
        rows.append(report(value))
        head = value["next"]
    return rows


class ReportPrinter:
    """A report."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        return "{" + report(self.value) + "}"


class ChainPrinter:
    """A chain: pending or not, and its reports as children."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        count = int(self.value["m_count"])
        return "%d reports, %s" % (count, "pending" if self.value["m_pending"] else "not pending")

    def children(self):
        if int(self.value["m_count"]) != 0:
            for number, row in enumerate(chain_of(self.value["m_head"])):
                yield "[%d]" % number, row


class ThreadPrinter:
    """A thread: its name and state."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        state = enumerator(atomic(self.value["m_shared"].referenced_value()["state"]))
        return '{"%s", %s}' % (text_of(self.value["m_name"]), state if self.value["m_valid"] else "invalid")


class ProcessPrinter:
    """A process: its program and arguments."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        return "{%s %s}" % (self.value["executable"], self.value["arguments"])


class SocketPrinter:
    """A socket: descriptor and state, and its addresses if it has any."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        text = "{fd %d, %s" % (int(self.value["m_socket_handle"]["socket_fd"]), enumerator(self.value["m_socket_state"]))
        for field, word in (("m_local_address", "local"), ("m_peer_address", "peer"), ("m_local_path", "local"),
                            ("m_peer_path", "peer")):
            try:
                text += ", %s %s" % (word, self.value[field])
            except gdb.error:
                pass
        return text + "}"


class AddressPrinter:
    """An address with its port."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        return "%s port %d" % (self.value["host"], int(self.value["port"]))


class CodePointsPrinter:
    """A text of code points."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        return self.value["m_text"]


class BytesPrinter:
    """A text in the encoding of the locale."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        return '"%s"' % text_of(self.value["m_data"])


class ChainCommand(gdb.Command):
    """Prints the error chain of the selected thread."""

    def __init__(self):
        super().__init__("vesk-chain", gdb.COMMAND_STATUS)

    def invoke(self, _argument, _from_tty):
        # Its own store; a thread without one has the default store.
        chain = gdb.parse_and_eval("'std::(anonymous namespace)::t_chain'")
        value = chain.dereference() if int(chain) != 0 else gdb.parse_and_eval("'std::(anonymous namespace)::t_default_chain'")
        if int(value["m_count"]) == 0:
            print("no reports")
            return
        print("pending:" if value["m_pending"] else "acknowledged:")
        for row in chain_of(value["m_head"]):
            print("  " + row)


def build():
    """Returns the printers, by the name of the class."""
    printers = gdb.printing.RegexpCollectionPrettyPrinter("vesk")
    printers.add_printer("report", "^std::ErrorObject$", ReportPrinter)
    printers.add_printer("chain", "^std::ErrorStorage::Chain$", ChainPrinter)
    printers.add_printer("thread", "^vesk::Thread$", ThreadPrinter)
    printers.add_printer("process", "^vesk::ProcessTNG$", ProcessPrinter)
    printers.add_printer("socket", "^vesk::(TCP|UDP|TCPServer|Unix|UnixServer|Raw)Socket$", SocketPrinter)
    printers.add_printer("address", "^vesk::IPSocket::IPAddress$", AddressPrinter)
    printers.add_printer("code points", "^std::unicode::String$", CodePointsPrinter)
    printers.add_printer("bytes", "^vesk::(UnicodeString|WidePath)$", BytesPrinter)
    return printers


gdb.printing.register_pretty_printer(None, build(), replace=True)
ChainCommand()
