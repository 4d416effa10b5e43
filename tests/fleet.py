"""A fleet of boards and a real Prometheus; tests/fleet starts this in the sandbox.

First all boards, one after the other: each writes its metrics when it is ready and, if it is harmed, once status has named the
trouble. Then their exporters and Prometheus, in a network namespace without a way out: the boards are scraped, the later metrics
take the place of the earlier ones, and they are scraped again. What takes minutes takes seconds in the copy of the rules that is
used here; the true times are tested by packaging/fleet/hubkeeper.test.yml.
"""
import contextlib, fcntl, json, os, pathlib, re, shutil, socket, struct, subprocess, sys, time, urllib.parse, urllib.request

from board import TOP, clear, shell, until
from desk_test import TROUBLES, Board

WORK = pathlib.Path("/fleet")  # where board.clear removes nothing
SIZE = 20
# Harms of the table of troubles: the alerts they must raise, and what else the metrics must have come to show.
HARMED = {
    "hub-stopped": ("HubDown HubUnwell", ""),
    "hub-frozen": ("HubDown HubUnwell", ""),
    "hub-busy note": ("HubHeldUp", r"command_seconds ([2-9]|\d\d)"),
    "queue-full chronicler": ("QueueFilling QueueLoses HubUnwell", r'failures_total{queue="chronicler"} \d'),
    "queue-removed stagehand": ("QueueGone HubUnwell", ""),
    "service-loop /usr/local/bin/ends": ("ServiceRestarting HubUnwell", r'restarts_total{service="/usr/local/bin/ends"} \d{3}'),
    "directory-missing /media/data": ("LogDirectoryGone HubUnwell", ""),
    "disk-full /media/data": ("LogDirectoryGone HubUnwell", ""),
    "clocksteward-off": ("HubUnwell", ""),
}
SILENT = "metrics no longer written"
SHORTER = {r"for: \d+m": "for: 2s", "command_seconds > 300": "command_seconds > 1"}


def write_metrics(folder, when, shown=""):
    """Writes a board's metrics; whether they show what is wanted."""
    folder.mkdir(parents=True, exist_ok=True)
    shell(f"hubctl metrics --write {folder}/{when}")
    return re.search(shown, (folder / when).read_text())


def make_board(folder, name):
    """One board with its hub: well, or with the harm of that name."""
    clear()
    with contextlib.ExitStack() as left:
        row = [row for row in TROUBLES if row[0] == name][-1]
        board = Board(row[2], left)
        write_metrics(folder, "before")
        if row[3]:
            row[3](board)
        due = [name.removesuffix(" note")] if name else []
        until(lambda: [f"{one['name']} {one['subject']}".strip() for one in board.status()[1]["findings"]] == due)
        until(write_metrics, folder, "after", HARMED[name][1] if name else "")


def show(folder, when):
    """Lets the board's exporter find these metrics."""
    (folder / "shown").mkdir(exist_ok=True)
    shutil.copyfile(folder / when, folder / "shown/new")
    os.replace(folder / "shown/new", folder / "shown/hubkeeper.prom")


def ask(path, **words):
    there = f"http://127.0.0.1:9090/api/v1/{path}?{urllib.parse.urlencode(words)}"
    with urllib.request.build_opener(urllib.request.ProxyHandler({})).open(there, timeout=60) as answer:
        return json.load(answer)["data"]


def counted(expression):
    """How many series it yields; none as long as Prometheus does not answer."""
    try:
        return len(ask("query", query=expression)["result"])
    except OSError:
        return 0


def watch_evaluations(count):
    def last():
        return ask("rules")["groups"][0]["lastEvaluation"]
    for _ in range(count):
        until(lambda now: last() != now, last())


def start(left, *words):
    said = left.enter_context((WORK / "said").open("a"))
    process = left.enter_context(subprocess.Popen([TOP / "scripts/prometheus", *words], stdout=said, stderr=said))
    left.callback(process.terminate)


def watch(left, boards):
    """The network, an exporter a board, and Prometheus, which must scrape them all."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        fcntl.ioctl(any_socket, 0x8914, struct.pack("16sH14x", b"lo", 1))  # SIOCSIFFLAGS, IFF_UP: see netdevice(7)
    rules = (TOP / "packaging/fleet/hubkeeper.rules.yml").read_text()
    for true, shorter in SHORTER.items():
        rules, found = re.subn(true, shorter, rules)
        assert found, f"the rules have no {true} any more"
    (WORK / "rules.yml").write_text(rules)
    targets = [{"targets": [f"127.0.1.{number}:9100"], "labels": {"instance": name}} for number, name in enumerate(boards, 1)]
    (WORK / "prometheus.yml").write_text(json.dumps({  # which is YAML too
        "global": {"scrape_interval": "1s", "evaluation_interval": "1s"}, "rule_files": ["rules.yml"],
        "scrape_configs": [{"job_name": "boards", "static_configs": targets}]}))
    for one in targets:
        start(left, "prometheus-node-exporter", "--collector.disable-defaults", "--collector.textfile",
              f"--collector.textfile.directory={WORK}/{one['labels']['instance']}/shown", f"--web.listen-address={one['targets'][0]}")
    start(left, "prometheus", f"--config.file={WORK}/prometheus.yml", f"--storage.tsdb.path={WORK}/store",
          "--web.listen-address=127.0.0.1:9090")
    until(lambda: counted("hubkeeper_well") == counted("up == 1") == SIZE)


def main():
    names = [*HARMED, SILENT]
    boards = {f"board-{number:02}": names[number // 2] if number % 2 == 0 else "" for number in range(SIZE)}
    if len(sys.argv) == 1:
        for name, harm in boards.items():
            make_board(WORK / name, harm if harm != SILENT else "")
        clear()
        os.execvp("unshare", ["unshare", "--user", "--map-root-user", "--net", "/usr/bin/python3", *sys.argv, "watch"])
    wanted = {(name, alert) for name, harm in boards.items() if harm
              for alert in (HARMED[harm][0] if harm != SILENT else "HubSilent").split()}

    def raised(*states):
        found = {(one["labels"]["instance"], one["labels"]["alertname"]) for one in ask("alerts")["alerts"] if one["state"] in states}
        assert found <= wanted, f"raised, and should not be: {found - wanted}"
        return found

    for name in boards:
        show(WORK / name, "before")
    with contextlib.ExitStack() as left:
        watch(left, boards)
        watch_evaluations(3)
        raised("pending", "firing")
        for name, harm in boards.items():
            show(WORK / name, "after")
            if harm == SILENT:
                os.utime(WORK / name / "shown/hubkeeper.prom", (time.time() - 600,) * 2)
        try:
            until(lambda: raised("pending", "firing") == raised("firing") == wanted)
        except AssertionError as error:
            raise AssertionError(f"not raised: {wanted - raised('firing')}") from error
        watch_evaluations(5)
        assert raised("firing") == wanted
    for name, harm in boards.items():
        if harm:
            print(f"{name}  {harm.removesuffix(' note'):34}", *sorted(alert for board, alert in wanted if board == name))
    print(f"{list(boards.values()).count('')} boards  {'well':34} -")
    print(f"fleet: all {SIZE} boards are scraped, {len(wanted)} alerts fire as they should, and no other was raised at any time")


main()
