"""The system the page runs against: the host (kepd), the example owners dhcpd, sysd
and ntpd, and kepwebd serving the page, all in a fresh folder, the way the gateway's
system tests and tools/demo.sh start them. As root the gateway runs as nobody and
reaches the host through the RPC's group, as on the device."""
import os
import pwd
import re
import shutil
import signal
import subprocess
import tempfile
import time

USERS = {  # name: (password, role)
    'admin': ('admin-pw', 'admin'),
    'viewer': ('viewer-pw', 'viewer'),
    'operator': ('operator-pw', 'operator'),
}
# The viewer reads everything but the system module and may change nothing; the
# operator may change tables but run no action.
RULES = ('{"admin": {"*": ["read", "write", "exec"]}, "viewer": {"*": ["read"], "system": []},'
         ' "operator": {"*": ["read", "write"]}}')
OWNERS = [('dhcpd', 'dhcpd/dhcp'), ('sysd', 'sysd/system'), ('ntpd', 'ntpd/ntp')]


class System:
    def __init__(self, build, source, www=None):
        self.build, self.source = build, source
        self.www = www or os.path.join(source, 'gateway', 'www')
        self.procs = []
        # Configuration file paths in a model description hold at most 31 characters.
        self.dir = tempfile.mkdtemp(prefix='kb', dir='/tmp')
        self.env = dict(os.environ, KEP_RUNTIME_DIR=self.dir + '/run', KEP_IMI_TIMEOUT_MS='2000')
        self.run_as = []
        self.access = []
        self.owner_env = self.env

    def _spawn(self, argv, log, env=None):
        with open(os.path.join(self.dir, log), 'wb') as out:
            p = subprocess.Popen(argv, stdout=out, stderr=subprocess.STDOUT, env=env or self.env)
        self.procs.append(p)
        return p

    def _kepctl(self, *args):
        return subprocess.run([self.build + '/tools/kepctl', '-c', *args], env=self.env,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=10)

    def start(self):
        if os.geteuid() == 0:
            nobody = pwd.getpwnam('nobody')
            os.chmod(self.dir, 0o711)
            os.mkdir(self.dir + '/run', 0o711)
            os.chmod(self.dir + '/run', 0o711)
            os.mkdir(self.dir + '/access.d')
            with open(self.dir + '/access.d/kepweb.json', 'w') as f:
                f.write('{"group": %d, "send": true}' % nobody.pw_gid)
            self.access = ['-a', self.dir + '/access.d']
            self.run_as = ['-U', 'nobody']
            # The gateway reads from the owners directly; they admit its group to reads.
            self.owner_env = dict(self.env, KEP_RPC_GROUP=str(nobody.pw_gid))
        models = []
        for program, example in OWNERS:
            with open(os.path.join(self.source, 'examples', example + '.xml.in')) as f:
                text = f.read().replace('@CONFDIR@', self.dir)
            model = os.path.join(self.dir, os.path.basename(example) + '.xml')
            with open(model, 'w') as f:
                f.write(text)
            models += ['-m', model]
            self._spawn([os.path.join(self.build, 'examples', program), model], program + '.log',
                        self.owner_env)
        self._spawn([self.build + '/tools/kepd', *models, *self.access], 'kepd.log')
        deadline = time.monotonic() + 20
        while time.monotonic() < deadline:
            if all(self._kepctl(*a).returncode == 0 for a in
                   (['get', 'dhcp', 'host'], ['get', 'system', '--name', 'ntp'], ['get', 'ntp', 'server'])):
                break
            time.sleep(0.05)
        else:
            raise RuntimeError('the host and owners did not come up:\n' + self.logs())
        hasher = self.build + '/gateway/kepwebd'
        lines = []
        for name, (password, role) in USERS.items():
            h = subprocess.run([hasher, '--hash', 'sha512'], input=password + '\n', env=self.env,
                               stdout=subprocess.PIPE, text=True, check=True).stdout.strip()
            lines.append('%s:%s:%s\n' % (name, h, role))
        with open(self.dir + '/users', 'w') as f:
            f.writelines(lines)
        with open(self.dir + '/rules.json', 'w') as f:
            f.write(RULES)

    def gateway(self, *extra):
        """Starts a kepwebd on a free loopback port; its base URL."""
        log = 'kepwebd-%d.log' % len(self.procs)
        p = self._spawn([self.build + '/gateway/kepwebd', '-f', '-l', '127.0.0.1:0', '-u', self.dir + '/users',
                         '-r', self.dir + '/rules.json', '-w', self.www, *self.run_as, *extra], log)
        deadline = time.monotonic() + 10
        while time.monotonic() < deadline and p.poll() is None:
            text = self.read(log)
            m = re.search(r'listening on (127\.0\.0\.1:\d+)', text)
            if m and 'serving with' in text:
                return 'http://' + m.group(1)
            time.sleep(0.02)
        raise RuntimeError('kepwebd did not start:\n' + self.read(log))

    def read(self, name):
        try:
            with open(os.path.join(self.dir, name), errors='replace') as f:
                return f.read()
        except FileNotFoundError:
            return ''

    def logs(self):
        return ''.join('---- %s\n%s' % (n, self.read(n)) for n in sorted(os.listdir(self.dir)) if n.endswith('.log'))

    def stop(self):
        for p in reversed(self.procs):
            if p.poll() is None:
                p.send_signal(signal.SIGTERM)
        for p in self.procs:
            try:
                p.wait(5)
            except subprocess.TimeoutExpired:
                p.kill()
                p.wait()
        shutil.rmtree(self.dir, ignore_errors=True)
