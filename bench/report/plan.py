"""What is measured, what it is compared with, and what the comparison must come to."""

from dataclasses import dataclass, field

ONE_WAY = "one way, 42 bytes"

REAL_TIME = "RR"
ORDINARY = "nort"


@dataclass(frozen=True)
class Target:
    """A bound on the ratio of a figure to the same figure of the floor, or on the figure itself."""

    figure: str
    title: str
    at_most: dict = None  # scheduling to bound
    at_least: dict = None
    of_floor: bool = True  # False: the figure itself is bounded
    plus: float = 0.0  # added to the floor's figure before the division

    def bound(self, scheduling):
        bounds = self.at_most or self.at_least or {}
        return bounds.get(scheduling)

    def is_met(self, value, scheduling):
        bound = self.bound(scheduling)
        if bound is None:
            return None
        return value <= bound if self.at_most else value >= bound


@dataclass(frozen=True)
class Run:
    """One measurement of one contender: the arguments of its program."""

    program: str
    arguments: tuple


@dataclass(frozen=True)
class Case:
    key: str
    port: Run
    floor: Run
    targets: tuple
    peers: dict = field(default_factory=dict)  # name to Run: shown beside, never judged
    schedulings: tuple = (REAL_TIME, ORDINARY)


def line(measurement, contender, count, **options):
    arguments = [measurement, contender, "--count", str(count)]
    for name, value in options.items():
        arguments += [f"--{name}", str(value)]
    return Run("line", tuple(arguments))


def part(name):
    return Run("parts", (f"{name}/manual_time",))


def both(bound):
    return {REAL_TIME: bound, ORDINARY: bound}


def at_most(figure, title, real_time, ordinary=None, **more):
    ordinary = real_time if ordinary is None else ordinary
    return Target(figure, title, at_most={REAL_TIME: real_time, ORDINARY: ordinary}, **more)


def at_least(figure, title, real_time, ordinary=None, **more):
    ordinary = real_time if ordinary is None else ordinary
    return Target(figure, title, at_least={REAL_TIME: real_time, ORDINARY: ordinary}, **more)


def shown(figure, title):
    return Target(figure, title)


def pair(measurement, count, **options):
    """The port and raw-k3 in the same measurement."""
    return {
        "port": line(measurement, "port", count, **options),
        "floor": line(measurement, "rawK3", count, **options),
    }


def line_cases():
    return [
        Case(
            "round trip, 42 bytes",
            **pair("roundTrip", 2000),
            targets=(
                at_most("p50_ns", "p50", 1.15),
                at_most("p99_ns", "p99", 1.5),
                shown("cpu_ns", "CPU"),
            ),
            peers={
                "raw-write": line("roundTrip", "rawWrite", 1000),
                "asio": line("roundTrip", "asio", 1000),
                "modbus RTU": line("roundTrip", "modbus", 500),
            },
        ),
        Case(
            "round trip with acknowledgement",
            port=line("trackedRoundTrip", "port", 2500),
            floor=None,
            targets=(at_most("stalls_percent", "stalls over 50 ms, %", 0.0, 0.2, of_floor=False),),
        ),
        Case(
            ONE_WAY,
            **pair("oneWay", 600),
            targets=(at_most("p50_ns", "p50", 1.1), at_most("cpu_ns", "CPU", 1.15)),
            peers={"raw-write": line("oneWay", "rawWrite", 600)},
        ),
        Case(
            "acknowledgement round trip",
            **pair("acknowledgement", 2000),
            targets=(at_most("p50_ns", "p50", 1.25), shown("cpu_ns", "CPU")),
        ),
        Case(
            "stream of 42 bytes",
            **pair("stream", 20000),
            targets=(
                at_least("rate_per_sec", "rate", 0.95, 0.65),
                at_most("cpu_ns", "CPU a message", 1.15, 1.5),
            ),
            peers={
                "raw-write": line("stream", "rawWrite", 20000),
                "asio": line("stream", "asio", 20000),
            },
        ),
        Case(
            "stream with acknowledgement",
            **pair("trackedStream", 5000),
            targets=(at_most("cpu_ns", "CPU a message", 1.4, 2.2),),
        ),
        Case(
            "the same, 512 outstanding",
            **pair("trackedStream", 5000, lag=512),
            targets=(at_most("cpu_ns", "CPU a message", 3.0),),
        ),
        Case(
            "the same, 4096 outstanding",
            **pair("trackedStream", 10000, lag=4096),
            targets=(at_most("cpu_ns", "CPU a message", 4.5),),
        ),
        Case(
            "stream of 131082 bytes",
            **pair("stream", 100, bytes=131082),
            targets=(at_least("rate_per_sec", "rate", 0.85), at_most("cpu_ns", "CPU a message", 1.4)),
        ),
        Case(
            "burst of ready frames",
            **pair("burst", 40000),
            targets=(at_least("rate_per_sec", "rate", 0.8), at_most("cpu_ns", "CPU a message", 1.3)),
        ),
        Case(
            "lots of 50 messages, sendDtMessages against sendMessages",
            port=line("lots", "atOnce", 200),
            floor=line("lots", "oneByOne", 200),
            targets=(shown("cpu_ns", "CPU"), shown("rate_per_sec", "rate")),
        ),
        Case(
            "idle",
            port=line("idle", "port", 1),
            floor=None,
            targets=(at_most("switches_per_sec", "context switches a second", 0.0, of_floor=False),),
        ),
        Case(
            "resend",
            port=line("lateness", "port", 60),
            floor=line("lateness", "wait", 60),
            targets=(
                at_most("p50_ns", "lateness p50, against a wait + 150 us", 1.0, plus=150_000),
                at_least("earliest_ns", "earliest, ns after the deadline", 0.0, of_floor=False),
            ),
        ),
        Case(
            "start and stop",
            port=line("startAndStop", "port", 30),
            floor=line("startAndStop", "threads", 30),
            targets=(
                at_most("start_ns", "start, against four threads made", 2.5),
                at_most("stop_ns", "stop, against four threads joined", 2.5),
            ),
        ),
        *(
            Case(
                f"memory, {ports} port{'s' if ports > 1 else ''}",
                port=line("memory", "port", 1, ports=ports),
                floor=line("memory", "threads", 1, ports=ports),
                targets=(at_most("port_bytes", "bytes a port", 1.25),),
            )
            for ports in (1, 100)
        ),
        Case(
            "100 ports",
            **pair("manyPorts", 40, ports=100),
            targets=(at_most("cpu_ns", "CPU a message", 1.2),),
        ),
    ]


KIB = 1024


def part_pair(subject, floor, size):
    """The port and its floor in the same benchmark; no thread is involved, so the scheduling does not matter."""
    return {
        "port": part(f"{subject}/port/{size}"),
        "floor": part(f"{subject}/{floor}/{size}"),
        "schedulings": (ORDINARY,),
    }


def slower(times):
    """At most so many times as long as the floor."""
    return (at_most("time_ns", "time", times),)


def faster(share):
    """At least that share of the floor's speed."""
    return (at_least("speed", "speed", share),)


SIZES = (1, 10, 100, 1000, 10000)


def part_cases():
    cases = [
        Case(f"framing from memory, {size} bytes", **part_pair("framing", "scanQueue", size), targets=faster(share))
        for size, share in ((42, 0.5), (266, 0.65), (4096, 0.75))
    ]
    cases += [
        Case(
            "framing, 256 KiB at once against lots of 4 KiB",
            port=part(f"lots/port/{64 * (4 * KIB // 42)}"),
            floor=part(f"lots/port/{4 * KIB // 42}"),
            schedulings=(ORDINARY,),
            targets=(Target("speed", "speed a byte", at_least=both(1.0)),),
        ),
        Case("noise, random", **part_pair("randomNoise", "memcpy", 64 * KIB), targets=faster(0.15)),
        Case("noise, all 0xFF", **part_pair("fillerNoise", "memcpy", 64 * KIB), targets=faster(0.15)),
        Case("worst noise", **part_pair("worstNoise", "scanQueue", 64 * KIB), targets=faster(0.7)),
    ]
    cases += [
        Case(f"{title}, {size} queued", **part_pair(subject, "deque", size), targets=slower(2.0))
        for subject, title in (("enqueue", "enqueue"), ("removal", "removal by id"), ("clear", "clear"))
        for size in SIZES[2:]
    ]
    cases += [
        Case(f"{title}, {size} pending", **part_pair(subject, "deque", size), targets=slower(3.0))
        for subject, title in (
            ("registration", "registration in order"),
            ("lateRegistration", "registration out of order"),
            ("acknowledgement", "ACK of the oldest"),
        )
        for size in SIZES
    ]
    return cases


@dataclass(frozen=True)
class Curve:
    """How a cost grows: for each size the port and its floor, in units of what one run does."""

    key: str  # of the file
    title: str
    x_title: str
    y_title: str
    figure: str
    points: tuple  # (size, port, floor, how much of what is counted one run does)

    def case(self, size, port, floor):
        return Case(f"{self.title}, {size}", port, floor, targets=(), schedulings=(ORDINARY,))

    def cases(self):
        return [self.case(size, port, floor) for size, port, floor, _ in self.points]


def part_curve(key, title, x_title, y_title, subject, floor, sizes, units):
    points = tuple(
        (size, part(f"{subject}/port/{size}"), part(f"{subject}/{floor}/{size}"), units(size)) for size in sizes
    )
    return Curve(key, title, x_title, y_title, "time_ns", points)


MESSAGE_BYTES = (10, 42, 266, 1034, 4106, 16394, 65546, 131082)
STREAM_BYTES = 2_000_000
MOST_STREAMED = 5000
PORTS = (2, 4, 10, 20, 50, 100)
MANY_PORTS_MESSAGES = 2000
TRACKER_CALLS = 4  # in one run of a part


def streamed(size):
    return min(MOST_STREAMED, STREAM_BYTES // size)


def curves():
    depth = "messages queued"
    pending = "requests pending"
    return [
        part_curve("enqueue", "enqueue", depth, "ns a message", "enqueue", "deque", SIZES, lambda size: size),
        part_curve("removal", "removal by id", depth, "ns a message", "removal", "deque", SIZES, lambda size: size),
        part_curve("clear", "clear", depth, "ns a message", "clear", "deque", SIZES, lambda size: size),
        *(
            part_curve(key, title, pending, "ns", subject, "deque", SIZES, lambda _: TRACKER_CALLS)
            for key, title, subject in (
                ("registration", "registration in order", "registration"),
                ("late-registration", "registration out of order", "lateRegistration"),
                ("acknowledgement", "ACK of the oldest", "acknowledgement"),
            )
        ),
        part_curve(
            "backlog",
            "framing",
            "bytes behind",
            "ns a byte",
            "backlog",
            "scanQueue",
            tuple(KIB << power for power in range(2, 9)),
            lambda size: size,
        ),
        Curve(
            "message-size",
            "stream",
            "bytes a message",
            "CPU ns a byte",
            "cpu_ns",
            tuple((size, *pair("stream", streamed(size), bytes=size).values(), size) for size in MESSAGE_BYTES),
        ),
        Curve(
            "ports",
            "ports at the same time",
            "ports",
            "CPU ns a message",
            "cpu_ns",
            tuple(
                (ports, *pair("manyPorts", max(20, MANY_PORTS_MESSAGES // ports), ports=ports).values(), 1)
                for ports in PORTS
            ),
        ),
    ]
