#!/usr/bin/env python3
"""Exec-to-exit time of tavra-hook for a plain event against a live daemon,
side by side with a minimal Python hook doing the same exchange, and of
tavra-hook with no daemon at all.

Usage: bench/hook-speed.py [--build DIR] [--runs N] [--stand-in]

DIR is a build tree (default build/release). The real tavrad of DIR is used
when it was built (src/daemon/tavrad) unless --stand-in is given; otherwise a
stand-in daemon in this script answers every request with {"ok":{}}. Each run
is spawned with posix_spawn and timed from the spawn to the reaped exit; the
two hooks alternate run by run, so both see the same machine.
"""
import argparse, json, os, selectors, signal, socket, statistics, subprocess, sys, tempfile, time

PAYLOAD = {"session_id": "bench-session", "transcript_path": "/tmp/t.jsonl", "cwd": "/tmp/bench",
           "hook_event_name": "PreToolUse", "permission_mode": "default", "tool_name": "Bash",
           "tool_input": {"command": "npm test", "description": "Run tests"}, "tool_use_id": "toolu_1"}

# What a minimal hook in Python does: read the payload, send one hook request
# with one event, read the reply, print nothing.
PYTHON_HOOK = r'''
import json, os, socket, sys, datetime
p = json.load(sys.stdin)
event = {"agent": sys.argv[1], "sessionID": p["session_id"], "kind": "toolStarted",
         "timestamp": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ"),
         "cwd": p.get("cwd"), "tool": {"name": p["tool_name"], "signature": "0", "isFileWrite": False}}
path = os.path.join(os.environ["XDG_DATA_HOME"], "tavra", "tavrad.sock")
try:
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.settimeout(1.0)
    s.connect(path)
    s.sendall((json.dumps({"hook": {"events": [event]}}, separators=(",", ":")) + "\n").encode())
    s.recv(65536)
except OSError:
    pass
'''


def serve(path):
    """A daemon that answers every line with ok; a process of its own, so it
    never waits for the measuring process."""
    server = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    server.bind(path)
    server.listen(64)
    sel = selectors.DefaultSelector()
    sel.register(server, selectors.EVENT_READ)
    buffers = {}
    while True:
        for key, _ in sel.select():
            if key.fileobj is server:
                conn, _ = server.accept()
                buffers[conn] = b""
                sel.register(conn, selectors.EVENT_READ)
                continue
            conn = key.fileobj
            data = conn.recv(65536)
            buffers[conn] += data
            if b"\n" in buffers[conn] or not data:
                if data:
                    conn.sendall(b'{"ok":{}}\n')
                sel.unregister(conn)
                conn.close()
                del buffers[conn]


def timed(argv, payload_file, env):
    with open(payload_file, "rb") as f, open(os.devnull, "wb") as null:
        actions = [(os.POSIX_SPAWN_DUP2, f.fileno(), 0), (os.POSIX_SPAWN_DUP2, null.fileno(), 1)]
        start = time.perf_counter_ns()
        pid = os.posix_spawn(argv[0], argv, env, file_actions=actions)
        _, status = os.waitpid(pid, 0)
        end = time.perf_counter_ns()
    if os.waitstatus_to_exitcode(status) != 0:
        sys.exit(f"{argv} exited {status}")
    return (end - start) / 1e6


def summary(name, ms):
    ms = sorted(ms)
    q = lambda p: ms[min(len(ms) - 1, int(p * len(ms)))]
    print(f"{name:38s} p50 {q(0.50):7.2f} ms  p90 {q(0.90):7.2f} ms  p99 {q(0.99):7.2f} ms  "
          f"mean {statistics.mean(ms):7.2f} ms  max {ms[-1]:7.2f} ms")
    return q(0.50), q(0.99)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default="build/release")
    ap.add_argument("--runs", type=int, default=1000)
    ap.add_argument("--stand-in", action="store_true")
    ap.add_argument("--serve", help=argparse.SUPPRESS)
    args = ap.parse_args()
    if args.serve:
        return serve(args.serve)
    hook = os.path.abspath(os.path.join(args.build, "src/hook/tavra-hook"))
    tavrad = os.path.abspath(os.path.join(args.build, "src/daemon/tavrad"))
    if not os.access(hook, os.X_OK):
        sys.exit(f"no {hook}: build it first (cmake --build --preset release --target tavra-hook)")

    with tempfile.TemporaryDirectory(prefix="hb-", dir="/tmp") as home:
        env = dict(os.environ, HOME=home, XDG_DATA_HOME=home, XDG_STATE_HOME=home, XDG_CONFIG_HOME=home,
                   TAVRA_NO_HELPER="1")
        os.makedirs(os.path.join(home, "tavra"), mode=0o700)
        sock = os.path.join(home, "tavra", "tavrad.sock")
        payload = os.path.join(home, "payload.json")
        with open(payload, "w") as f:
            json.dump(PAYLOAD, f)
        script = os.path.join(home, "hook.py")
        with open(script, "w") as f:
            f.write(PYTHON_HOOK)
        python = sys.executable if os.path.isabs(sys.executable) else "/usr/bin/python3"
        python = os.path.realpath(subprocess.run([python, "-c", "import sys; print(sys.executable)"],
                                                 capture_output=True, text=True).stdout.strip())

        no_daemon = [timed([hook, "claude"], payload, env) for _ in range(max(50, args.runs // 10))]

        daemon = None
        if os.access(tavrad, os.X_OK) and not args.stand_in:
            daemon = subprocess.Popen([tavrad], env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            which = "real tavrad"
        else:
            daemon = subprocess.Popen([sys.executable, os.path.abspath(__file__), "--serve", sock])
            which = "stand-in daemon (answers ok)"
        for _ in range(500):
            if os.path.exists(sock):
                break
            time.sleep(0.01)
        else:
            sys.exit("the daemon did not open its socket")

        ours, theirs, floor = [], [], []
        for _ in range(20):  # warm caches for both
            timed([hook, "claude"], payload, env)
            timed([python, script, "claude"], payload, env)
        for _ in range(args.runs):
            ours.append(timed([hook, "claude"], payload, env))
            theirs.append(timed([python, script, "claude"], payload, env))
            floor.append(timed(["/bin/true"], payload, env))
        if daemon:
            daemon.send_signal(signal.SIGTERM)
            daemon.wait(timeout=10)

    print(f"{args.runs} runs each, plain PreToolUse event, against the {which}")
    p50, p99 = summary("tavra-hook", ours)
    py50, py99 = summary("minimal Python hook", theirs)
    summary("tavra-hook, no daemon socket", no_daemon)
    summary("/bin/true (the machine's spawn floor)", floor)
    print(f"Python / tavra-hook: {py50 / p50:.1f}x at p50, {py99 / p99:.1f}x at p99")
    ok = p50 <= 2.0 and p99 <= 5.0 and py50 / p50 >= 10
    print("targets (p50 <= 2 ms, p99 <= 5 ms, >= 10x Python):", "met" if ok else "NOT met")
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
