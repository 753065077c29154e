#!/usr/bin/env python3
"""Makes the fuzzers' inputs of corpus/: real messages, images, archives and descriptions, each in the form that its
fuzzer reads (told at the head of SUBJECT_fuzz.cpp). The same files at every run; to be run after a change of a form.
Inputs that a fuzzer has found lie beside them under names that begin with found-, and are left alone.
"""
import gzip
import hashlib
import io
import pathlib
import struct
import tarfile

CORPUS = pathlib.Path(__file__).parent / "corpus"
SIGNATURE = b">>> KORVA SUP_TELMA_OR BIOS <<<"

made = set()


def put(subject, name, content):
    path = CORPUS / subject / name
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(content)
    made.add(path)


def field(text, size):
    return text.encode().ljust(size, b"\0")


def decided(*choices):
    """The decisions at the head of an input."""
    return bytes([len(choices), *choices])


# The daemon's messages.

OPCODES = ["install_loader", "get_loader", "get_ks", "lock", "source_version", "module_version", "program",
           "own_version", "done", "progress", "notify", "zero", "unknown"]
ACTIVE, STANDBY = 1, 2
FORK_AS_CHILD, FORK_FAILS, FORK_DECIDED, HISTORY = 0x20, 0x40, 0x60, 0x80  # bits of the state
CARD_90, CARD_106, CARD_183, CARD_182, CARD_314 = 0, 1, 4, 7, 10


def message(name, body=b""):
    return bytes([OPCODES.index(name)]) + struct.pack(">H", len(body)) + body


def program_request(module, uri="", kind=0, local_path=""):
    return struct.pack(">II4x", module, 0 if uri else 1) + field(uri, 228) + field(local_path, 288) + bytes([kind])


def source_request(path="", node=0xFE000000, sap=0):
    return struct.pack("<I", 0 if path else 1) + field(path, 256) + struct.pack("<II", node, sap)


def dispatch(name, messages, card=CARD_90, state=ACTIVE, decisions=()):
    put("dispatch", name, decided(*decisions) + bytes([card, state]) + b"".join(messages))


def version_entry(label="swid-bios", flash="  v3.5.0(09/17/12)", running="  v3.1.0(02/11/11)"):
    return struct.pack(">II", 0, 11) + field(label, 128) + field(flash, 128) + field(running, 128)


def short_answer():
    return struct.pack(">I", 0) + field("  v3.5.0(09/17/12)", 128) + field("  v3.1.0(02/11/11)", 128)


def full_answer(further_rows, tlvs=b""):
    return short_answer() + struct.pack(">I", 19) + field("swid-bios", 128) + struct.pack(">I", further_rows) + tlvs


def tlv(kind, value, length=None):
    padding = b"\0" * (-len(value) % 4)
    return struct.pack(">HH", kind, len(value) if length is None else length) + value + padding


def make_dispatch():
    for name in ("install_loader", "get_loader", "get_ks", "lock", "source_version", "module_version", "program",
                 "own_version", "notify", "unknown"):
        dispatch("empty-" + name, [message(name)])
    install = message("install_loader", field("/bootflash/system.bin", 200) + struct.pack(">I", 1))
    dispatch("install", [install])
    dispatch("install-with-history", [install], state=ACTIVE | HISTORY)
    dispatch("install-unterminated", [message("install_loader", b"a" * 200 + struct.pack(">I", 1))])
    dispatch("install-shell-words", [message("install_loader", field("/bootflash/$(reboot);", 200) + bytes(4))])
    dispatch("install-no-log", [install, message("own_version")], decisions=[0] * 6 + [7] * 3)
    dispatch("loader-file", [message("get_loader", struct.pack(">I", 4096))])
    dispatch("loader-file-overflow", [message("get_loader", struct.pack(">I", 0xFFFFFFFC)),
                                      message("get_ks", struct.pack(">I", 0x7FFFFFF8))])
    dispatch("ks-file", [message("get_ks", struct.pack(">I", 65536))])
    lock, unlock = (message("lock", struct.pack(">II", operation, 0x1901)) for operation in (2, 3))
    dispatch("lock-and-unlock", [lock, unlock, unlock, message("lock", struct.pack(">II", 9, 0xFFFFFFFF))])
    for card in (CARD_90, CARD_106, CARD_182, CARD_314):
        dispatch(f"source-tree-{card}", [message("source_version", source_request())], card=card)
    dispatch("source-image", [message("source_version", source_request("/bootflash/system.bin", 0x0201, 93))])
    dispatch("source-unterminated",
             [message("source_version", bytes(4) + b"p" * 256 + struct.pack("<II", 0x0201, 94))])
    dispatch("own-versions", [message("module_version", struct.pack(">I", 5)), message("own_version")])
    for module in (9, 0, 233, 0xFFFFFFFF):
        dispatch(f"module-version-{module}", [message("module_version", struct.pack(">I", module)),
                                              struct.pack(">H", 260), short_answer()])
    dispatch("module-version-rows", [message("module_version", struct.pack(">I", 9)),
                                     struct.pack(">H", 800), full_answer(1, tlv(0, version_entry()))])
    own, other = message("program", program_request(5)), message("program", program_request(9))
    uri = message("program", program_request(5, "bootflash:system.bin"))
    dispatch("program-own", [own, message("module_version", struct.pack(">I", 5))])
    dispatch("program-busy", [uri, own])
    dispatch("program-standby", [uri], state=STANDBY)
    dispatch("program-overridden", [other], card=CARD_183)
    dispatch("program-selected-flash", [other], card=CARD_314)
    dispatch("program-unterminated", [message("program", bytes(12) + b"u" * 517)])
    accepted = struct.pack(">H", 4) + bytes(4)  # the other module's answer
    relayed = [message("progress", bytes(12)), message("notify"), message("done", struct.pack(">I", 0x4071000C))]
    for card in (CARD_90, CARD_106, CARD_182, CARD_314):
        dispatch(f"child-own-{card}", [own], card=card, state=ACTIVE | FORK_AS_CHILD)
    dispatch("child-image", [uri], state=ACTIVE | FORK_AS_CHILD)
    dispatch("child-image-shell-words", [message("program", program_request(5, "bootflash:`reboot`"))],
             state=ACTIVE | FORK_AS_CHILD)
    dispatch("child-standby", [own], state=STANDBY | FORK_AS_CHILD)
    dispatch("child-other", [other, accepted, *relayed], state=ACTIVE | FORK_AS_CHILD)
    dispatch("child-alternate-flash", [message("program", program_request(5, kind=1))], state=ACTIVE | FORK_AS_CHILD)
    dispatch("fork-fails", [own, lock, own], state=ACTIVE | FORK_FAILS)
    dispatch("fork-decided", [own, own], state=ACTIVE | FORK_DECIDED, decisions=[0] * 12 + [1] * 8)


def make_module_answers():
    def answer(name, content, decisions=()):
        put("module_answers", name, decided(*decisions) + struct.pack(">H", len(content)) + content)
    answer("empty", b"")
    answer("short", short_answer())
    answer("one-byte-less", short_answer()[:-1])
    answer("one-byte-more", short_answer() + b"\0")
    answer("unterminated", struct.pack(">I", 0) + b"f" * 128 + b"r" * 128)
    answer("one-row", full_answer(0))
    answer("two-rows", full_answer(1, tlv(0, version_entry())))
    answer("ignored-tlv", full_answer(2, tlv(1, b"x") + tlv(0, version_entry())))
    answer("ignored-tlv-too-long", full_answer(2, tlv(1, b"xy") + tlv(7, b"") + tlv(0, version_entry())))
    answer("entry-too-short", full_answer(2, tlv(0, b"abc") + tlv(0, version_entry())))
    answer("length-beyond-the-end", full_answer(1, tlv(0, b"abc", 0xFFFF)))
    answer("fewer-rows-than-told", full_answer(9, tlv(0, version_entry())))
    answer("as-many-rows-as-a-message-has", full_answer((64 << 20) // 392 - 1))
    for count in (0xFFFFFFFF, 0x7FFFFFFF, 0x00A6810F, 1 << 24):
        answer(f"rows-{count:x}", full_answer(count))


# BIOS images.

SIZES = [0, 1, 48, 49, 127, 128, 129, 4096, 0x10000, 0x10001, 0x10000 + 128, 0x7FFFF, 0x80000]
X86, X86N, X86S, PPC, LC2DC3 = range(5)


def piece(offset, content, unit=0):
    return struct.pack(">BHB", unit, offset, len(content)) + content


def make_images():
    def image(name, reader, size, *pieces, offset=0, decisions=()):
        put("image_readers", name,
            decided(*decisions) + bytes([reader, SIZES.index(size), offset]) + b"".join(pieces))
    block = SIGNATURE + b"09/17/12" + b" " * 17 + b"  v3.5.0"
    header = piece(18, SIGNATURE)
    image("x86", X86, 0x80000, piece(0x10, block, 1))
    image("x86-at-the-end", X86, 0x80000, piece(0x1FF, block, 1))
    image("x86-cut", X86, 49, piece(0, block))
    image("x86-none", X86, 0x7FFFF)
    image("x86-none-in-less-than-a-page", X86, 49)
    image("x86n", X86N, 4096, header, piece(55, b"Sep 17"), piece(77, b"2012 3 05"))
    image("x86n-magic", X86N, 4096, piece(0, b"\x27\x05\x19\x56"), piece(55, b"Dec 31"), piece(77, b"99  99999999999"))
    image("x86n-cut", X86N, 49, header)
    image("x86n-empty", X86N, 0)
    image("x86n-flash", X86N, 0x80000, piece(0x1012, SIGNATURE), piece(0x1037, b"Jan 01"), offset=1)
    image("x86n-unaligned", X86N, 4096, header, offset=4)
    image("x86n-behind-the-end", X86N, 4096, header, offset=5)
    image("x86s", X86S, 0x10000 + 128, header, piece(64, b"\0" * 51 + b"Feb 11" + b"\0" * 16 + b"2011 2 08", 1))
    image("x86s-cut", X86S, 0x10001, header)
    image("x86s-too-short", X86S, 0x10000, header)
    fields = piece(38, b"03.05.02.07Mar 17 2012")
    for name, reader in (("ppc", PPC), ("lc2dc3", LC2DC3)):
        magic = piece(0, b"\x27\x05\x19\x56" + bytes(range(16)))
        image(name, reader, 0x80000, magic, fields)
        for answer, kind in enumerate(("equal", "differs", "short", "missing")):
            image(f"{name}-digest-{kind}", reader, 0x80000, magic, fields, decisions=[0] * 3 + [answer] * 4)
        image(f"{name}-cut", reader, 0x7FFFF, magic, fields)
        image(f"{name}-flash", reader, 0x80000, piece(0x1000, b"\x27\x05\x19\x56"), piece(0x1026, b"03.05.02"), offset=1)


# The other parsers.

def make_versions():
    for name, text in {"newer": "v3.5.0(09/17/12)\nv3.1.0(02/11/11)", "equal": "  v3.5.0(09/17/12)\n  v3.5.0(09/17/12)",
                       "long-numbers": "v12345.00001.-999999(\nv 1. 2. 3(", "no-end": "v3.5.0\nv3.5", "empty": "",
                       "no-number": "v..(\nv+-.x.\t(", "nul": "v1.2.3(\0\nv1.2.4("}.items():
        put("version_compare", name, text.encode())


def make_records():
    def answer(name, content, module=9):
        put("version_records", name, bytes([module]) + content)
    module_header = lambda count: struct.pack(">IIII", 0, 9, count, 19)
    answer("empty", b"")
    answer("module", module_header(1) + version_entry())
    answer("module-empty-entry", module_header(2) + version_entry() + bytes(392))
    answer("module-unprintable", module_header(1) + version_entry("\x1b[2J", " \t ", "f" * 128))
    answer("module-failure", struct.pack(">IIII", 0xFFFFFFFF, 9, 0, 0))
    answer("module-other", module_header(1) + version_entry(), module=5)
    answer("module-too-many", module_header(33) + version_entry())
    answer("module-count-overflow", module_header(0xFFFFFFFF))
    answer("module-count-whose-bytes-overflow", module_header(2**32 // 392 + 1) + version_entry())


def make_agent_answers():
    modules, card, locks, results, events, files, transfer, digest, versions, outcome, head, faults = range(12)
    def answer(name, kind, content):
        put("agent_answers", name, bytes([kind]) + content)
    def words(*values):
        return struct.pack(f">{len(values)}I", *values)
    time = field("2026-01-31T11:00:00Z", 24)
    flash = words(0, 65536, 4096, 7, 2, 43, 1, 17) + time + words(0, 5, 1, 2, 0, 300)
    answer("modules", modules, words(2, 2, 1, 1, 90, 1, 2, 2, 106, 0))
    answer("modules-count-overflow", modules, words(2, 0xFFFFFFFF, 1, 1, 90, 1))
    answer("modules-not-in-order", modules, words(2, 2, 3, 1, 90, 1, 2, 2, 106, 0))
    answer("card-without-flashes", card, words(2, 90, 17, 1, 1, 1, 0, 41) + time)
    answer("card", card, words(2, 90, 17, 1, 1, 1, 1, 41) + time + flash)
    answer("card-third-flash", card, words(2, 90, 17, 1, 1, 1, 1, 41) + time + words(2) + flash[4:])
    answer("card-unprintable", card, words(2, 90, 17, 1, 1, 1, 1, 41) + time + flash.replace(b"2026", b"\x1b[2J"))
    answer("locks", locks, words(0x101, 1, 9, 129, 0x4071000A) + time)
    answer("locks-untold", locks, words(0x101, 0, 0, 0, 0) + bytes(24))
    answer("results", results, words(28, 0x4071000C, 27) + time)
    answer("results-of-no-module", results, words(233, 0, 27) + time)
    line = b'{"time":"2026-01-31T12:00:00.000Z","slot":5,"flash":"primary","sequence":10,"pid":9,"event":"begun"'
    file = field("a.bin", 64) + struct.pack(">Q", 3) + bytes(range(32))
    answer("files", files, file + file.replace(b"a.bin", b"b.bin"))
    answer("files-not-in-order", files, file + file)
    answer("files-hostile-name", files, file.replace(b"a.bin", b"../.."))
    answer("files-unterminated", files, b"a" * 64 + file[64:])
    answer("transfer", transfer, words(1, 2, 0, 65536))
    answer("digest", digest, bytes(range(32)))
    answer("head", head, words(5, 0, 0, 10) + bytes(range(32)))
    answer("log-faults", faults, words(1, 0, 0, 1, 0, 3, 0, 0, 7, 0, 0, 2, 0, 0, 0, 4))
    answer("log-faults-unknown", faults, words(8, 0, 0, 1, 0, 3, 0, 0))
    answer("log-faults-too-many", faults, words(1, 0, 0, 1, 0, 3, 0, 0) * 12)
    answer("outcome", outcome, words(2, 28, 0, 27) + time)
    version = field("v3.5.0(09/17/12)", 128)
    answer("versions", versions, words(5, 1, 0, 2) + version + words(0, 4) + version + words(1, 3) + version)
    answer("versions-unprintable", versions, words(5, 1, 9, 1) + version.replace(b"v", b"\x1b") + words(0, 0) + b"\xff" * 128)
    chained = line + b',"image_bytes":8,"version":"v3.5.0","old_version":"v3.1.0","sha256":"' + b"a" * 64 + \
        b'","user":"ops","host":"desk","chain":"' + b"b" * 64 + b'"}\n'
    answer("events-chained", events, chained + chained.replace(b"bbbb", b"BBBB"))
    answer("events-lost", events, line.replace(b"begun", b"lost") + b',"lost":3,"reason":"disk full"}\n')
    answer("events", events, line + b"}\n" + line + b',"image_bytes":8,"version":"v3.5.0"}\n' + line)


def make_agent_requests():
    sender, other, agent = range(3)
    first_id = 1 << 32
    (get_chassis, get_card, get_version, get_events, get_totals, get_locks, get_results, *_) = range(1, 11)
    put_file, put_piece, put_end, get_flash, get_file, get_piece, get_end, list_files, remove_file = range(11, 20)
    lock, unlock, check, lock_answer = range(1, 5)

    def request(opcode, body=b"", source=sender):
        return struct.pack(">BBBH", 0, source, opcode, len(body)) + body

    def lock_message(opcode, body, source=sender):
        return struct.pack(">BBBH", 4, source, opcode, len(body)) + body

    def passes(milliseconds):
        return struct.pack(">BH", 5, milliseconds)

    def process(source, is_there):
        return bytes([6, source, is_there])

    def words(*values):
        return struct.pack(f">{len(values)}I", *values)

    def announced(name, content, size=None):
        return field(name, 64) + struct.pack(">Q", len(content) if size is None else size) + \
            hashlib.sha256(content).digest()

    def transfer(number=1):
        return struct.pack(">Q", first_id + number)

    def piece(offset, content, number=1):
        return transfer(number) + struct.pack(">Q", offset) + content

    def asked_piece(offset, count, number=1):
        return transfer(number) + struct.pack(">QI", offset, count)

    def steps(name, *all_steps):
        put("agent_requests", name, b"".join(all_steps))

    killed = bytes([7])
    abc = b"abc"
    begin = request(put_file, announced("a.bin", abc))
    delivery = [begin, request(put_piece, piece(0, abc)), request(put_end, transfer())]
    steps("empty")
    steps("facts", *(request(opcode) for opcode in (get_chassis, get_card, get_locks, get_results, list_files)))
    steps("flash-facts", *(request(opcode, words(instance)) for opcode in (get_version, get_totals, get_flash)
                           for instance in (0, 1, 2, 0xFFFFFFFF)), request(get_events, words(0, 0, 0)))
    steps("log-faults", *(request(55, words(instance)) for instance in (0, 1, 2)))
    steps("verify-image", *(request(41, field(path, 256)) for path in ("/bin/true", "/dev/zero", "/", "", "none")),
          request(41, b"/" * 256), request(41, b"/bin/true"))
    order, renew, end, cancel, told = range(31, 36)

    def wish(manifest_state=0, signature=0x40720030, manifest=b""):
        return struct.pack(">IIQ", 0, 15, 16384) + b"\x5a" * 32 + field("v3.5.0(09/17/12)", 128) + \
            words(manifest_state, signature) + manifest.ljust(256, b"\0") + words(0, 0) + \
            field("/bootflash/system.bin", 128) + field("ann", 64) + field("far\n", 64)
    plain = wish()
    steps("order", request(order, plain + words(1, 0)), request(order, plain + words(0, 0)), request(order, plain + words(0, 0)),
          request(told, words(0)), request(renew, words(0, 0, 1)), request(cancel, words(0)),
          request(end, words(0, 0, 1, 0x4071000A)), killed, request(told, words(0)))
    steps("order-of-no-flash", *(request(order, words(instance) + plain[4:] + words(0, 0)) for instance in (1, 2, 2**32 - 1)),
          *(request(opcode, words(2)) for opcode in (cancel, told)), request(renew, words(2, 0, 1)),
          request(end, words(2, 0, 1, 0)))
    steps("order-refused", request(order, words(0, 16) + plain[8:] + words(0, 0)),
          request(order, words(0, 0, 0, 16385) + plain[16:] + words(0, 0)), request(order, plain))
    manifest = MARK + struct.pack(">IIII", 1, 16384, 17, 7) + field("v3.5.0(09/17/12)", 32) + field("x86n", 32) + \
        words(0) + bytes(52) + b"the key!" + bytes(32) + b"s" * 64
    steps("order-with-manifest", request(order, wish(1, 0, manifest) + words(0, 0)), request(order, wish(1) + words(0, 0)),
          request(order, wish(2) + words(0, 0)), request(order, wish(3) + words(0, 0)),
          request(order, wish(1, 0, manifest.replace(b"v3", b"\x1b3")) + words(0, 0)))
    steps("order-of-a-copy", request(order, plain + words(1, 1)), request(order, plain + words(0, 1)),
          request(order, struct.pack(">IIQ", 0, 15, 2**64 - 1) + plain[16:] + words(0, 1)))
    steps("unknown", request(0), request(8), request(20), request(21), request(25))
    steps("delivery", *delivery, request(list_files), request(get_file, field("a.bin", 64)),
          request(get_piece, asked_piece(0, 57344, 2)), request(get_end, transfer(2)),
          request(remove_file, field("a.bin", 64)))
    steps("delivery-repeated", *(step for step in delivery for _ in range(3)))
    steps("delivery-replaces", *delivery, request(put_file, announced("a.bin", b"abcd")),
          request(put_piece, piece(0, b"ab", 2)), request(put_piece, piece(2, b"cd", 2)), request(put_end, transfer(2)))
    steps("wrong-digest", request(put_file, announced("a.bin", b"abd")), *delivery[1:])
    steps("missing-piece", begin, request(put_end, transfer()))
    steps("other-offsets", begin, *(request(put_piece, piece(offset, abc)) for offset in (1, 3, 2**64 - 1, 0, 0, 3)))
    for number, name in enumerate(("", ".", "..", "../x", "/x", ".part.1", "-x", "a\nb", "a" * 64)):
        steps(f"hostile-name-{number}", request(put_file, announced(name, abc)), request(get_file, field(name, 64)),
              request(remove_file, field(name, 64)))
    steps("sizes", *(request(put_file, announced(str(size), b"", size)) for size in (0, 1 << 26, (1 << 26) + 1, 2**64 - 1)))
    steps("many", *(request(put_file, announced(str(number), abc)) for number in range(6)))
    steps("two-senders", begin, request(put_file, announced("a.bin", abc), other),
          request(put_piece, piece(0, abc), other), *delivery[1:])
    steps("silent-sender", begin, passes(14000), delivery[1], passes(15000), delivery[2])
    steps("dead-sender", begin, process(sender, 0), passes(200), *delivery[1:])
    steps("other-process", begin, process(sender, 1), passes(200), *delivery[1:])
    steps("killed-agent", begin, delivery[1], killed, delivery[2], request(list_files))
    steps("flash", request(get_flash, words(0)), request(get_piece, asked_piece(0, 16000)),
          request(get_piece, asked_piece(0, 8000)), request(get_piece, asked_piece(8000, 57344)),
          request(get_end, transfer()), request(get_end, transfer()))
    steps("flash-not-whole", request(get_flash, words(0)), request(get_piece, asked_piece(0, 1)),
          request(get_end, transfer()), request(get_piece, asked_piece(1, 1)))
    time = field("2026-01-31T11:00:00Z", 24)

    def wanted(node_id, number=1):
        return struct.pack(">Q", number) + words(node_id, 1, 9, 129, 0x4071000A) + time

    def node(node_id, number=2):
        return struct.pack(">QI", number, node_id)
    steps("lock", lock_message(lock, wanted(0x301)), passes(600), lock_message(unlock, node(0x301)))
    steps("lock-of-another-card", lock_message(lock, wanted(0x301), agent), passes(500),
          lock_message(lock, wanted(0x301, 3), agent), lock_message(lock, wanted(0x301)), passes(5000))
    steps("lock-at-another-card", lock_message(lock, wanted(0x101)),
          lock_message(lock_answer, struct.pack(">QII", first_id + 1, 0x101, 0), agent), passes(600), passes(6000))
    steps("lock-check", lock_message(lock, wanted(0x301), agent), lock_message(lock, wanted(0x301)),
          lock_message(check, node(0x301), agent), lock_message(unlock, node(0x301), agent), killed, passes(1000))
    steps("lock-of-no-length", *(lock_message(opcode, b"x" * length) for opcode in range(6) for length in (0, 11, 53)))


def make_frames():
    def frame(name, payload_bytes, payload=b"", kind=2, place=0, magic=0x4D545346, version=1, descriptors=0, seals=0,
              file_bytes=0):
        header = struct.pack("<IHBBIIIIQII", magic, version, kind, place, 4790, 0x0201, 94, 0, 77, payload_bytes, 0)
        put("frames", name, bytes([descriptors, seals]) + file_bytes.to_bytes(3, "big") + header + payload)
    put("frames", "empty", b"")
    put("frames", "half-a-header", bytes(25))
    for kind in range(6):
        frame(f"kind-{kind}", 8, b"12345678", kind=kind)
    frame("no-payload", 0)
    frame("too-long", 4, b"12345678")
    frame("too-short", 9, b"12345678")
    frame("length-overflow", 0xFFFFFFFF, b"12345678")
    frame("other-version", 0, version=2)
    frame("other-magic", 0, magic=0x4D545347)
    frame("descriptor-not-asked-for", 8, b"12345678", descriptors=1)
    file = dict(place=1, seals=0x0E, file_bytes=70000)
    frame("memory-file", 70000, descriptors=1, **file)
    frame("memory-file-missing", 70000, **file)
    frame("memory-file-twice", 70000, descriptors=2, **file)
    frame("memory-files-without-room", 70000, descriptors=6, **file)
    frame("memory-file-and-payload", 70000, b"1234", descriptors=1, **file)
    frame("memory-file-too-small", 70000, descriptors=1, place=1, seals=0x0E, file_bytes=69999)
    frame("memory-file-not-sealed", 70000, descriptors=1, place=1, seals=0x06, file_bytes=70000)
    frame("memory-file-for-little", 64, descriptors=1, place=1, seals=0x0E, file_bytes=64)


def tar(*members, mode=0o644, kind=None, link=""):
    content = io.BytesIO()
    with tarfile.open(fileobj=content, mode="w", format=tarfile.USTAR_FORMAT) as archive:
        for name, data in members:
            member = tarfile.TarInfo(name)
            member.mode = mode
            member.size = 0 if kind else len(data)
            if kind:
                member.type, member.linkname = kind, link
            archive.addfile(member, io.BytesIO(data))
    return content.getvalue().rstrip(b"\0") + bytes(1024)


def make_archives():
    plugin, loader = "vesk/plugin_img/core_plugin", "etc/srg-sloader.sro"
    veskadd, nbitool, own_name, right_sums = 0x00, 0x21, 0xE0, 0x02

    def image(name, mode, content, member=b""):
        put("archives", name, bytes([mode, len(member)]) + member + content)

    def packed(content):
        return gzip.compress(content, mtime=0)
    whole = tar((plugin, b"plugin" * 20), (loader, b"loader" * 20))
    image("system-image", veskadd, packed(whole))
    image("loader", nbitool, packed(whole))
    image("not-compressed", veskadd | right_sums, whole)
    image("loader-not-compressed", nbitool | right_sums, whole)
    image("no-member", veskadd, tar(("other", b"x")))
    image("dotted-name", veskadd, tar(("./vesk//plugin_img/./core_plugin", b"x")))
    image("leading-slash", veskadd, tar(("/" + plugin, b"x")))
    image("cut", veskadd, whole[:700])
    image("cut-gzip", veskadd, packed(whole)[:60])
    image("set-user-id", veskadd, tar((plugin, b"x"), mode=0o6777))
    for kind, number in (("hard-link", tarfile.LNKTYPE), ("link", tarfile.SYMTYPE), ("folder", tarfile.DIRTYPE),
                         ("fifo", tarfile.FIFOTYPE), ("device", tarfile.CHRTYPE)):
        image(kind, veskadd, tar((plugin, b""), kind=number, link="../../elsewhere"))
    image("way-out", own_name, tar(("../../elsewhere/sentinel", b"x")), b"../../elsewhere/sentinel")
    image("way-out-hidden", own_name, tar(("a/../../../x", b"x")), b"a/../../../x")
    image("absolute", own_name, tar(("/a/b", b"x")), b"/a/b")
    extended = bytearray(tar(("attributes", b"x" * 120))[:520])
    extended[156:157] = tarfile.XHDTYPE
    image("cut-extended-header", veskadd | right_sums, bytes(extended))
    for planted in range(1, 8):
        image(f"planted-{planted}", veskadd | planted << 2, packed(whole))
        image(f"planted-loader-{planted}", nbitool | planted << 2, packed(whole))
    image("loader-over-link", 0x20 | 2 << 2, packed(whole))
    for name, magic in (("grzip", b"GRZipII\0\x02\x04:)"), ("lrzip", b"LRZI\0\x06" + bytes(20)),
                        ("lzop", b"\x89LZO\0\r\n\x1a\n\x10\x30\x20\xa0" + bytes(20))):
        image("packed-with-" + name, veskadd, magic + bytes(512))


def make_descriptions():
    card = '[[card]]\nslot = 1\ncard_id = 90\nkind = "supervisor"\nrole = "active"\n'
    texts = {
        "one-card": card,
        "all-keys": '[chassis]\nname = "lab"\nisolation = "plain"\nwait_limit_s = 5\n' + card +
                    'name = "A"\nhw_change_bit = 3\nimage_tree = "images"\nflash_kib = 64\nsector_kib = 4\n'
                    'flash_image = "old.bin"\nalternate_image = "old.bin"\nboot_loader = "old.bin"\n'
                    'ks_image = "old.bin"\nserves = true\n',
        "stand-ins": card + '[[card]]\nslot = 2\nfamily = "x86n-tarvik-c"\nkind = 2\nanswers = "full"\nanswer_rows = 2\n'
                            '[[card]]\nslot = 3\nfamily = "x86n"\nkind = "linecard"\nanswers = "garbage"\n'
                            "answer_seed = 1\nbootflash_mib = 64\n",
        "same-slot": card + card,
        "no-card": "[chassis]\n",
        "unknown-key": card + '"\\u001B[2J" = 1\n',
        "numbers": card.replace("= 1\n", "= 0x1F\n") + "flash_mib = 1_0\nsector_kib = 9223372036854775807\n",
        "control-character": card + 'name = "a\\u0007b"\n',
        "not-tables": "card = [1, 2]\nchassis = 3\n",
        "nested": "a = " + "[" * 40 + "]" * 40 + "\n",
        "dates": card + "serves = 1979-05-27T07:32:00Z\n",
        "carriage-return": card + "serves = tr\rue\n",
        "letter-of-no-key": card + "Gr\xc3\xb6\xc3\x9fe = 1\n",
        "blank-of-no-kind": "[[c\xef\xbb\xbdard]]\n",
        "broken": '[[card]\nslot = "',
        "not-utf-8": '[[card]]\nname = "\xff\xfe"\n',
    }
    for name, text in texts.items():
        put("description", name, text.encode("latin-1"))


# Images with manifests, and what a card demands of them.

MARK = b"\x8fBIOSmanifest\r\n\x1a"


def make_manifests():
    sealed = 1

    def manifest(form=1, version="v3.5.0(09/17/12)", card_ids=(90, 93), count=None, key=b"", unused=b""):
        return MARK + struct.pack(">IIII", form, 0, 17, 7) + field(version, 32) + field("x86n", 32) + \
            struct.pack(">I", len(card_ids) if count is None else count) + \
            struct.pack(f">{len(card_ids)}H", *card_ids).ljust(28, b"\0") + unused.ljust(24, b"\0") + \
            key.ljust(8, b"\0") + bytes(32) + (b"s" * 64 if key else bytes(64))

    def image(name, content, decisions=sealed, piece=99):
        put("image_manifest", name, bytes([decisions, piece]) + content)

    erased = b"\xff" * 256
    image("none", erased * 3)
    image("whole", erased + manifest() + erased)
    image("not-sealed", erased + manifest() + erased, 0)
    image("signed", erased + manifest(key=b"the key!") + b"behind")
    image("at-the-beginning", manifest())
    image("shifted", b"x" + manifest())
    image("two", manifest() * 2)
    image("cut", erased + manifest()[:255])
    image("mark-alone", erased + MARK)
    image("other-form", manifest(form=2))
    image("too-many-cards", manifest(count=0xFFFFFFFF))
    image("cards-behind-the-last", manifest(count=1))
    image("unprintable", manifest(version="v\x1b[2J"))
    image("not-empty", manifest(unused=b"x"))
    image("ppc-too-small", b"\x27\x05\x19\x56" + erased[4:] + manifest())


def make_policies():
    def policy(name, text):
        put("card_policy", name, b"\0" + text.encode())

    policy("empty", "")
    policy("all", "signed = required\norders = required\nno_version = pass\nolder = refuse\nsmaller = refuse\n"
                  "loader_folders = /bootflash /mnt/pss\n")
    policy("comments", "# a card\n\n signed=optional\r\n")
    policy("twice", "signed = required\nsigned = optional\n")
    policy("folder-above", "loader_folders = /bootflash/../etc\n")
    policy("unknown", "sined = required\n")
    put("card_policy", "key", b"\1# of the maker\ned25519-public " + b"5a" * 32 + b"\n")
    put("card_policy", "key-too-short", b"\1ed25519-public 5a\n")
    put("card_policy", "revoked", b"\2# lost\n0123456789abcdef\n")
    put("card_policy", "revoked-name", b"\2maker\n")


def make_orders():
    fields = {"id": "1783960000000000", "state": "ordered", "sha256": "5a" * 32, "size_bytes": "1048576",
              "version": "v3.5.0(09/17/12)", "family": "17", "forced": "1", "image": "/bootflash/system.bin",
              "user": "ann", "host": "far", "ordered_at": "2026-01-31T23:59:59Z", "changed_at": "2026-01-31T23:59:59Z",
              "old_version": "", "result": "0", "writer": "0", "renewed_s": "12"}

    def record(name, **other):
        lines = "".join(f"{key} {value}\n" for key, value in (fields | other).items())
        put("flash_order", name, b"\0" + lines.encode())
    put("flash_order", "empty", b"\0")
    for state in ("ordered", "writing", "verified", "failed", "cancelled", "other"):
        record(state, state=state)
    record("digest-upper-case", sha256="5A" * 32)
    record("digest-short", sha256="5a" * 31)
    record("id-overflow", id=str(2**64))
    record("leading-zeros", size_bytes="007")
    record("minus-zero", renewed_s="-0")
    record("before-the-start", renewed_s="-5")
    record("text-cut", user="u" * 256)
    record("text-too-long", user="u" * 257)
    record("unprintable", image="\x1b[2J")
    record("key-twice", user="ann\nuser bob")
    put("flash_order", "made", bytes([1, 1, 0, 9, 17, 15, 1, 9, 3]) + 7 * (bytes([4]) + b"v3.5"))
    put("flash_order", "made-hostile", bytes([1, 4]) + bytes(7) +
        bytes([255]) + b"x\nstate verified\x1b\x9b\0".ljust(255, b"h"))


def main():
    make_dispatch()
    make_module_answers()
    make_images()
    make_versions()
    make_records()
    make_agent_answers()
    make_agent_requests()
    make_frames()
    make_archives()
    make_descriptions()
    make_manifests()
    make_policies()
    make_orders()
    for path in CORPUS.glob("*/*"):
        if path not in made and not path.name.startswith("found-"):
            path.unlink()


if __name__ == "__main__":
    main()
