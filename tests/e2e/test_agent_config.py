#!/usr/bin/env python3
"""The management agent's broker, credentials and TLS come from its
configuration (environment variables or a ZORV1_MQTT_CONFIG file).

Real mosquitto brokers on loopback: one that wants a user name and password
(a password file made with mosquitto_passwd), one that also wants TLS with
a client certificate (a CA, server and client certificates made here with
openssl). testpmd hot-plugs devices with a bad argument, each of which
makes the driver send one report. Checked, for each broker:
  - with the right settings the reports reach a subscriber and
    send_msg_fail stays 0;
  - with a wrong password (or a CA that did not sign the broker's
    certificate) no report arrives, every failed attach returns at once,
    send_msg_fail counts each report, and the log says why exactly once
    although the agent keeps retrying and several reports fail;
  - a configuration that cannot be used (a missing CA file) is said once and
    nothing is sent in clear text instead.
"""
import json
import os
import shutil
import subprocess
import sys
import time

sys.dont_write_bytecode = True  # keep the source tree clean
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import zorv_e2e as e2e  # noqa: E402

USER = "zorv1agent"
PASSWORD = "s3cret-for-the-agent"
PROMPT_ATTACH_S = 1.5
# Long enough for the agent to retry its connection more than once (the
# back-off is 1 to 4 s), so that a reason logged per attempt would show.
RETRY_WINDOW_S = 5.0


def run(argv, cwd):
    r = subprocess.run(argv, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                       timeout=60)
    e2e.check(r.returncode == 0, "%s failed: %s" % (" ".join(argv),
                                                     r.stdout.decode("utf-8", "replace")))


def make_certs(d):
    """A CA, a server certificate for 127.0.0.1 and a client certificate
    signed by it, and a second CA that signed nothing the broker has."""
    def ca(name):
        run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2",
             "-keyout", name + ".key", "-out", name + ".crt", "-subj", "/CN=" + name], d)

    def leaf(name, cn, ext):
        run(["openssl", "req", "-newkey", "rsa:2048", "-nodes", "-keyout", name + ".key",
             "-out", name + ".csr", "-subj", "/CN=" + cn], d)
        with open(os.path.join(d, name + ".ext"), "w") as f:
            f.write(ext + "\n")
        run(["openssl", "x509", "-req", "-in", name + ".csr", "-CA", "ca.crt", "-CAkey",
             "ca.key", "-CAcreateserial", "-days", "2", "-out", name + ".crt",
             "-extfile", name + ".ext"], d)
    ca("ca")
    ca("otherca")
    leaf("server", "127.0.0.1", "subjectAltName=IP:127.0.0.1")
    leaf("client", USER, "extendedKeyUsage=clientAuth")
    # The broker drops root for its own user: let it read what it needs.
    for f in os.listdir(d):
        os.chmod(os.path.join(d, f), 0o644)
    return {k: os.path.join(d, k) for k in ("ca.crt", "otherca.crt", "server.crt",
                                             "server.key", "client.crt", "client.key")}


def make_password_file(d):
    path = os.path.join(d, "passwords")
    run(["mosquitto_passwd", "-b", "-c", path, USER, PASSWORD], d)
    os.chmod(path, 0o644)
    return path


def reports(sub, topic):
    out = []
    for line in sub.lines():
        if line.startswith(topic + " "):
            out.append(json.loads(line[len(topic) + 1:]))
    return out


def send_msg_fail(pmd):
    return e2e.telemetry_one(pmd.prefix, "/zorv1/cp_stats")["send_msg_fail"]


def failing_attach(pmd, name):
    """Hot-plugs a device with an unknown key: it fails and is reported."""
    t0 = time.monotonic()
    out = pmd.cmd("port attach %s,foo=1" % name, timeout=30)
    took = time.monotonic() - t0
    e2e.check("is attached" not in out and pmd.alive(), "attach %s: %s" % (name, out))
    return took


def agent_run(args, run_dir, tag, env, topic):
    return e2e.Testpmd(args.lib, env=env, app_args=[],
                       log_path=os.path.join(run_dir, "testpmd_%s.log" % tag))


def expect_delivery(args, run_dir, tag, env, sub, topic):
    """With settings the broker takes, reports arrive and nothing fails."""
    env = dict(env, ZORV1_MQTT_TOPIC=topic)
    with agent_run(args, run_dir, tag, env, topic) as pmd:
        pmd.start()
        for i in range(3):
            failing_attach(pmd, "net_zorv1_%s%d" % (tag, i))
        want = {"net_zorv1_%s%d" % (tag, i) for i in range(3)}
        got = e2e.wait_until(lambda: want <= {r.get("device") for r in reports(sub, topic)},
                             10, 0.1)
        e2e.check(got, "%s: reports %r, want devices %r" % (tag, reports(sub, topic), want))
        e2e.check(send_msg_fail(pmd) == 0, "%s: send_msg_fail %d with a broker that takes "
                  "the agent" % (tag, send_msg_fail(pmd)))
        e2e.check("Agent connected to broker" in pmd.output, "%s: no connection logged" % tag)
        e2e.check(pmd.quit() == 0, "%s: testpmd exit code %s" % (tag, pmd.proc.returncode))
    print("%s: 3 reports delivered, send_msg_fail 0" % tag, flush=True)


def expect_refusal(args, run_dir, tag, env, sub, topic, why):
    """With settings the broker refuses: nothing blocks, each report is
    counted, the reason is logged once."""
    env = dict(env, ZORV1_MQTT_TOPIC=topic)
    with agent_run(args, run_dir, tag, env, topic) as pmd:
        pmd.start()
        took = [failing_attach(pmd, "net_zorv1_%s0" % tag)]
        e2e.wait_until(lambda: False, RETRY_WINDOW_S)
        took += [failing_attach(pmd, "net_zorv1_%s%d" % (tag, i)) for i in (1, 2, 3)]
        e2e.check(max(took) < PROMPT_ATTACH_S, "%s: failed attaches took %r s" % (tag, took))
        e2e.check(send_msg_fail(pmd) == 4, "%s: send_msg_fail %d, want 4"
                  % (tag, send_msg_fail(pmd)))
        e2e.check(pmd.output.count("Send msg failed, net_zorv1_%s" % tag) == 4,
                  "%s: the driver's per-report line" % tag)
        lines = [l for l in pmd.output.splitlines() if why in l]
        e2e.check(len(lines) == 1, "%s: %r logged %d times, want once:\n%s"
                  % (tag, why, len(lines), pmd.output[-3000:]))
        e2e.check(not any(r.get("device", "").startswith("net_zorv1_" + tag)
                          for r in reports(sub, topic)), "%s: a report arrived" % tag)
        e2e.check(pmd.quit() == 0, "%s: testpmd exit code %s" % (tag, pmd.proc.returncode))
    print("%s: 4 reports failed in at most %.3f s each, send_msg_fail 4, logged once: %s"
          % (tag, max(took), lines[0].split(": ", 1)[-1]), flush=True)


def scenario(args):
    for tool in ("openssl", "mosquitto_passwd"):
        if shutil.which(tool) is None:
            print("SKIP: %s is not installed (scripts/setup.sh installs it)" % tool)
            sys.exit(77)
    run_dir = e2e.work_dir("agentcfg")
    topic = "zorv1/e2e/%d/report" % os.getpid()
    brokers, subs = [], []
    try:
        pw = make_password_file(run_dir)
        certs = make_certs(run_dir)

        # -- a broker with a password file, plain TCP --------------------
        plain = e2e.Mosquitto(listener_conf="password_file %s" % pw, anonymous=False)
        brokers.append(plain.start())
        sub = e2e.Subscriber(plain.port, topic, os.path.join(run_dir, "sub_plain.out"),
                             ["-u", USER, "-P", PASSWORD]).start()
        subs.append(sub)
        env = {"ZORV1_MQTT_BROKER": plain.address, "ZORV1_MQTT_USERNAME": USER,
               "ZORV1_MQTT_PASSWORD": PASSWORD, "ZORV1_MQTT_CLIENT_ID": "zorv1-e2e-%d" % os.getpid()}
        expect_delivery(args, run_dir, "pwenv", env, sub, topic)

        # The same from a configuration file.
        conf = os.path.join(run_dir, "agent.conf")
        with open(conf, "w") as f:
            f.write("# agent settings\nbroker = %s\nusername %s\npassword = %s\n"
                    % (plain.address, USER, PASSWORD))
        expect_delivery(args, run_dir, "pwfile", {"ZORV1_MQTT_CONFIG": conf}, sub, topic)

        expect_refusal(args, run_dir, "pwbad", dict(env, ZORV1_MQTT_PASSWORD="wrong"), sub,
                       topic, "refused the connection of user %s" % USER)
        expect_refusal(args, run_dir, "pwnone", {"ZORV1_MQTT_BROKER": plain.address}, sub,
                       topic, "refused the connection")

        # -- a broker with TLS, a client certificate and a password -------
        tls_conf = ("password_file %s\ncafile %s\ncertfile %s\nkeyfile %s\n"
                    "require_certificate true\n" % (pw, certs["ca.crt"], certs["server.crt"],
                                                    certs["server.key"]))
        tls = e2e.Mosquitto(listener_conf=tls_conf, anonymous=False)
        brokers.append(tls.start())
        tls_sub = e2e.Subscriber(tls.port, topic, os.path.join(run_dir, "sub_tls.out"),
                                 ["-u", USER, "-P", PASSWORD, "--cafile", certs["ca.crt"],
                                  "--cert", certs["client.crt"],
                                  "--key", certs["client.key"]]).start()
        subs.append(tls_sub)
        with open(conf, "w") as f:
            f.write("broker %s\nusername %s\npassword %s\ncafile %s\ncertfile %s\n"
                    "keyfile %s\n" % (tls.address, USER, PASSWORD, certs["ca.crt"],
                                      certs["client.crt"], certs["client.key"]))
        expect_delivery(args, run_dir, "tlsfile", {"ZORV1_MQTT_CONFIG": conf}, tls_sub, topic)

        tls_env = {"ZORV1_MQTT_BROKER": tls.address, "ZORV1_MQTT_USERNAME": USER,
                   "ZORV1_MQTT_PASSWORD": PASSWORD, "ZORV1_MQTT_CAFILE": certs["ca.crt"],
                   "ZORV1_MQTT_CERTFILE": certs["client.crt"],
                   "ZORV1_MQTT_KEYFILE": certs["client.key"]}
        expect_delivery(args, run_dir, "tlsenv", tls_env, tls_sub, topic)
        # The broker's certificate is not signed by the CA the agent trusts.
        expect_refusal(args, run_dir, "tlsca", dict(tls_env, ZORV1_MQTT_CAFILE=certs["otherca.crt"]),
                       tls_sub, topic, "certificate verify failed")
        # A CA file that is not there: said once, nothing sent at all.
        expect_refusal(args, run_dir, "tlsnofile",
                       dict(tls_env, ZORV1_MQTT_CAFILE=os.path.join(run_dir, "missing.crt")),
                       tls_sub, topic, "Agent TLS settings")
    finally:
        for s in subs:
            s.stop()
        for b in brokers:
            b.stop()
        e2e.remove_tree(run_dir)


if __name__ == "__main__":
    e2e.main(scenario)
