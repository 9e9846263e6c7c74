"""tavlen.lua in tshark, compared with the protocol document, the library's decoder and real traffic."""
import ctypes, itertools, os, pathlib, re, select, socket, struct, subprocess, sys, tempfile
import xml.etree.ElementTree as xml

lua, document, corpus, library, collector, examples = map(os.path.abspath, sys.argv[1:])
os.chdir((work := tempfile.TemporaryDirectory()).name)  # where tshark finds no settings and no other plugins,
os.chmod(".", 0o755)  # unless it runs as root, as which it looks elsewhere and may refuse scripts
environment = dict(os.environ, WIRESHARK_CONFIG_DIR=work.name, WIRESHARK_PLUGIN_DIR=work.name, LC_ALL="C.UTF-8")
alone = dict(env=environment, **(dict(user=65534, group=65534, extra_groups=[]) if os.getuid() == 0 else {}))
pathlib.Path("dissector").write_bytes(pathlib.Path(lua).read_bytes())
kept = {path.name: b"\0\0\0\x1d" + path.read_bytes() for path in pathlib.Path(corpus).iterdir()}
datagrams, stream = ("-u", "45000,27759"), ("-T", "45000,45001")

def tshark(packets, ports, *options, ways=itertools.repeat("O")):  # O: outbound, I: inbound
    dump = "".join("%s\n0 %s\n" % (way, bytes(packet).hex(" ")) for way, packet in zip(ways, packets))
    subprocess.run(["text2pcap", "-qD", *ports, "-", "capture"], input=dump, check=True, capture_output=True, text=True)
    command = ["tshark", "-X", "lua_script:dissector", "-r", "capture", "-d", "tcp.port==45001,tavlen", *options]
    run = subprocess.run(command, capture_output=True, timeout=300, text=True, errors="replace", **alone)
    assert run.returncode == 0 and not re.search("Lua:? Error", run.stdout + run.stderr), run.stderr
    return run.stdout

def columns(sent, ports, *fields, **ways):
    return [row.split("\t") for row in tshark(sent, ports, "-Tfields", *map("-e".__add__, fields), **ways).splitlines()]

def notation(element):
    shown = {field.get("name"): field.get("show") for field in element}
    code = int(shown["tavlen.element.type"])
    items = [notation(field) for field in element.findall("*[@name='tavlen.element']")]
    for field in (field for field in element if field.get("name").startswith("tavlen.value")):
        items.append(bytes.fromhex(field.get("value", "")).decode() if code == 16 else field.get("show"))
    assert int(shown.get("tavlen.element.count", len(items))) == len(items), shown
    text = {1: "%s", 12: "'%s'", 14: "{%s}", 16: "'%s'", 28: "{%s}"}.get(code, "[%s]" if code > 16 else "%s")
    text = "null" if (code, items) == (16, [""]) else text % ("," if code in range(17, 28) else " ").join(items)
    return text if code == 1 else "%s:%d=%s" % (shown["tavlen.element.name"], code, text)

lines, bodies = zip(*re.findall(r"^    (\d+: .*)\n((?:    (?:[0-9a-f]{2} ?)+\n?)+)", open(document).read(), re.M))
bodies = [bytes.fromhex(dump) for dump in bodies]
*seen, rich = xml.fromstring(tshark([*bodies, kept["rich"]], datagrams, "-Tpdml")).findall(".//*[@name='tavlen']")
for line, packet in zip(lines, seen, strict=True):
    code, element = (packet.find("*[@name='tavlen.%s']" % name) for name in ("type", "element"))
    assert line == code.get("show") + ": " + notation(element), (line, notation(element))
rows = dict(re.findall(r"^\| (\d+) \| (`clpacket_.*)", open(document).read(), re.M))  # of the catalogue
words = " 1 int32 version; " + " ".join(rows.values())
for packet in seen:
    code, *labels = packet.findall(".//*[@name='tavlen.type']") + packet.findall(".//*[@name='tavlen.element.label']")
    if row := rows.get(code.get("show")):
        assert re.search(r"_(create_)?%s`" % code.get("showname").split()[1], row), (code.get("showname"), row)
        assert all(re.search(r"\d (structure of )?\w+ %s\b" % label.get("show"), words) for label in labels), row
numbers = ["1:%d=%d" % (code, 256 ** (1 << code // 2 - 1) - 7 if code in (3, 5, 7, 9) else -7) for code in range(2, 12)]
told = notation(rich.find("*[@name='tavlen.element']"))
assert "9:14={" + " ".join(numbers) in told and "1:27=[x,,yz]" in told, told

frames = [struct.pack(">I", len(body) - 4) + body for body in bodies]  # cut within the head, together, byte by byte
segments = [part for k, frame in enumerate(frames[:10], 1) for part in (frame[:k], frame[k:])]
segments += [b"".join(frames[10:40]) + frames[40][:5], frames[40][5:] + b"".join(frames[41:-1]), *zip(frames[-1])]
codes = [code for [shown] in columns(segments, stream, "tavlen.type") for code in shown.split(",") if code]
assert codes == [line.split(":")[0] for line in lines], codes

decoder = ctypes.CDLL(library)  # what it does not decode is malformed: kept inputs, every beginning, any damage
decoder.mtb_struct_new.restype = ctypes.c_void_p
decoder.logger_open()
decoder.set_log_dest(0, None, None, None)
def decodes(datagram):
    cursor, size = ctypes.c_char_p(datagram[4:]), ctypes.c_int32(len(datagram) - 4)
    structr = ctypes.c_void_p(decoder.mtb_struct_new(1))
    return size.value > 0 and not decoder.mtb_binary_deserialize(structr, ctypes.byref(cursor), ctypes.byref(size), 1)

damaged = [*kept.values(), *(kept["rich"][:size] for size in range(1, len(kept["rich"])))]
for i, body in enumerate([kept["rich"], *bodies] * int(os.environ.get("TAVLEN_DISSECTOR_ROUNDS", "20"))):
    at, piece = i * 7919 % len(body), (b"\xff", b"\0", b"\x0e", b"\x1c", body[20:40])[i % 5]
    damaged.append(body[:at] + piece + body[at + i % 6 :])
for body, [groups] in zip(damaged, columns(damaged, datagrams, "_ws.expert.group"), strict=True):
    assert decodes(body) == (str(0x07000000) not in groups.split(",")), (body.hex(), groups)

event = b"\0\0\0\x1d\0\1\1\0\0\0"
findings = {"cut_short": b"\1\0\2\x0c\0\0\0\2a", "bad_count": b"\1\0\2\x1b\x80\0\0\0", "bad_type": b"\1\0\2\x1d",
            "no_structure": b"\1\0\2\x1c\0\0\0\1\0\2\2a", "inner_root": b"\1\0\1\1\0\0\0\0", "ends_early": b"\1",
            "behind_root": b"\0x", "not_taken": b"\3\0\1\6\0\0\0\2\0\2\x0c\0\0\0\0\0\3\x0c\0\0\0\0"}
shown = columns([event + body for body in findings.values()], datagrams, *("tavlen." + name for name in findings))
assert all(row[i] for i, row in enumerate(shown)), shown
parts = b"\6\0\1\6\0\0\0\1\1\2\x0c\0\0\0\1m\0\7\x0e\0\0\0\1", b"n", b"a\0\3\x0c\0\0\0\x09\x1b[\xe2\x81\xa6\xc2\x9b\xffm", b"z"
assert tshark([event + b"\0\2\x0c\0\0\0\1".join(parts)], datagrams).strip().endswith(r"a: \033[\u2066\u009B\377m")
assert columns([b"\x7f\xff\xff\xff" + event], stream, "tavlen.bad_frame") == [["1"]]

def start(*command):
    limited = ["sh", "-c", 'ulimit -f 100000; exec timeout 60 "$0" "$@"', *map(str, command)]
    return subprocess.Popen(limited, stdout=subprocess.PIPE, text=True)
near, far = (("127.77.0.%d" % host, 20000 + os.getpid() % 5000) for host in (1, 2))

relay = socket.socket(type=socket.SOCK_DGRAM)  # between a sender and a collector; then a client and a server
relay.bind(near)
with start(collector, "-a", far[0], "-p", far[1]) as program:
    assert any("Logger started" in line for line in program.stdout)
    start(examples + "/first_sender", *near).wait()
    relay.sendto(datagram := relay.recv(65536), far)
    written = program.stdout.readline().rstrip()
    program.terminate()
[[sender, line, info]] = columns([datagram], datagrams, "tavlen.log.sender", "tavlen.log.line", "_ws.col.Info")
assert written == info == sender + ": " + line and "hello from C" in line, (written, info)

relay = socket.create_server(near)
with start(examples + "/list_server", *far, 1) as server, start(examples + "/list_client", *near) as client:
    assert any("listening" in line for line in server.stdout)
    ends, ways, pieces = [relay.accept()[0], socket.create_connection(far)], "", []
    while piece := (end := select.select(ends, [], [], 20)[0][0]).recv(7):
        ends[1 - ends.index(end)].sendall(piece)
        ways, pieces = ways + "OI"[ends.index(end)], [*pieces, piece]
    listed = client.stdout.read().split()
shown = columns(pieces, stream, "tavlen.type", "tavlen.value.string", ways=ways)
assert [row for row in shown if row[0]] == [["50", ""], ["52", ",".join(listed)]] and len(listed) == 4, shown
