"""The gateway's token, its page behind a real nginx and its own TLS, as an administrator sets them up.

Called with the gateway and the folder of the sources.
"""

import http.client
import json
import os
import re
import socket
import ssl
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.parse

GATEWAY, SOURCE = map(os.path.abspath, sys.argv[1:3])
sys.path.insert(0, os.path.join(SOURCE, "tests", "page"))
from plant import free_port  # noqa: E402

LIMIT_S = 60
PROJECT = {'port': {'device': '/dev/ttyNONE'},
           'variables': [{'tag': 'Speed', 'type': 'INT', 'writable': True, 'minimum': 0, 'maximum': 100}]}


def wait_until(condition, what):
    end = time.monotonic() + LIMIT_S
    while time.monotonic() < end:
        found = condition()
        if found:
            return found
        time.sleep(0.02)
    raise AssertionError('waited too long for ' + what)


class Place(unittest.TestCase):
    """A folder with a configuration, and the programs that a test starts."""

    more = {}  # of the configuration

    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.write('p.json', json.dumps(PROJECT))

    def path(self, name):
        return os.path.join(self.folder.name, name)

    def write(self, name, text):
        with open(self.path(name), 'w', encoding='utf-8') as file:
            file.write(text)

    def read(self, name):
        with open(self.path(name), encoding='utf-8', errors='replace') as file:
            return file.read()

    def configure(self, web):
        self.write('gateway.json', json.dumps({'lines': [{'name': 'press', 'project': 'p.json'}],
                                               'socket': {'path': 'g.sock'}, 'web': web, **self.more}))

    def configure_without_page(self):
        self.write('gateway.json', json.dumps({'lines': [{'name': 'press', 'project': 'p.json'}],
                                               'socket': {'path': 'g.sock'}}))

    def run_gateway(self, *arguments):
        return subprocess.run([GATEWAY, *arguments], cwd=self.folder.name, capture_output=True, text=True,
                              timeout=LIMIT_S, check=False)

    def make_token(self, *more):
        made = self.run_gateway('token', *more, 'web.token')
        self.assertEqual(made.returncode, 0, made.stderr)
        return made.stdout.strip()

    def start(self, command, log):
        with open(self.path(log), 'w', encoding='utf-8') as file:
            process = subprocess.Popen(command, cwd=self.folder.name, stdout=file, stderr=file)

        def end():
            process.terminate()
            process.wait(LIMIT_S)
        self.addCleanup(end)
        return process

    def start_gateway(self):
        process = self.start([GATEWAY, 'gateway.json'], 'gateway.log')
        wait_until(lambda: 'the page is at ' in self.read('gateway.log'), 'the page')
        self.find_page()
        return process

    def find_page(self):
        told = re.findall(r'the page is at (.+)\n', self.read('gateway.log'))[-1]
        self.address = urllib.parse.urlsplit(re.sub(r'^port (\d+) of every .*', r'http://127.0.0.1:\1/', told))

    def certificate(self, name, *names):
        subprocess.run(['openssl', 'req', '-x509', '-newkey', 'ec', '-pkeyopt', 'ec_paramgen_curve:P-256', '-nodes',
                        '-days', '30', '-subj', '/CN=' + name, '-addext',
                        'subjectAltName=' + ','.join(names), '-keyout', self.path(name + '.key'),
                        '-out', self.path(name + '.pem')], check=True, capture_output=True)
        os.chmod(self.path(name + '.key'), 0o600)

    def trusting(self, name):
        return ssl.create_default_context(cafile=self.path(name + '.pem'))

    def ask(self, method, target, headers=None, body=None, connection=None):
        connection = connection or http.client.HTTPConnection('127.0.0.1', self.address.port, timeout=LIMIT_S)
        connection.request(method, target, body, headers or {})
        reply = connection.getresponse()
        reply.text = reply.read().decode()
        connection.close()
        return reply


    def log_in(self, token):
        """The header of a browser that has logged in."""
        login = self.ask('GET', '/login')
        form = login.headers['Set-Cookie'].split(';')[0]
        field = re.search(r'name="synchronizer" type="hidden" value="([^"]+)"', login.text).group(1)
        done = self.ask('POST', '/login', {'Content-Type': 'application/x-www-form-urlencoded', 'Cookie': form},
                        urllib.parse.urlencode({'token': token, 'synchronizer': field}))
        if done.status != 303:
            return done.status
        return {'Cookie': done.headers.get_all('Set-Cookie')[0].split(';')[0]}

    def status(self):
        return json.loads(self.run_gateway('status', '--json', '--socket', 'g.sock').stdout)


class Session(Place):

    def setUp(self):
        super().setUp()
        self.token = self.make_token()
        self.configure({'port': 0, 'tokenFile': 'web.token', 'writes': True, 'hosts': ['panel7.plant.example'],
                        'proxies': ['127.0.0.1']})
        self.start_gateway()

    def read_events(self, headers):
        connection = http.client.HTTPConnection('127.0.0.1', self.address.port, timeout=LIMIT_S)
        self.addCleanup(connection.close)
        connection.request('GET', '/api/v1/events', headers=headers)
        reply = connection.getresponse()
        self.assertEqual(reply.status, 200)
        self.assertTrue(reply.readline())
        return reply

    def await_end(self, reply):
        end = time.monotonic() + LIMIT_S
        while reply.readline():
            self.assertLess(time.monotonic(), end, 'the stream goes on')

    def test_streams_of_events_end_with_it(self):
        browser = self.log_in(self.token)
        other = self.log_in(self.token)
        mine, others = self.read_events(browser), self.read_events(other)
        session = json.loads(self.ask('GET', '/api/v1/session', browser).text)
        self.assertEqual(self.ask('POST', '/logout', browser).status, 403)
        self.assertEqual(self.ask('POST', '/logout', {**browser, 'X-Synchronizer': session['synchronizer']}).status, 204)
        self.await_end(mine)
        self.assertEqual(self.ask('GET', '/api/v1/events', browser).status, 401)
        program = self.read_events({'Authorization': 'Bearer ' + self.token})
        self.assertTrue(others.readline(), 'the stream of another session has ended')
        self.make_token('--replace')
        self.assertEqual(self.run_gateway('reload', '--socket', 'g.sock').returncode, 0)
        self.await_end(others)
        self.await_end(program)
        self.assertEqual(self.ask('GET', '/api/v1/events', other).status, 401)

    def test_is_refused_and_that_is_logged_and_counted_but_not_what_was_typed(self):
        for attempt in range(3):
            self.assertEqual(self.log_in('typed-%d' % attempt), 401)
        self.assertEqual(self.log_in('typed-3'), 429)
        for _ in range(5):
            self.assertEqual(self.ask('PUT', '/api/v1/values/Speed', {'X-Forwarded-For': '10.0.0.7'}, '{"value": 98765432}').status,
                             401)
        self.assertEqual(self.ask('GET', '/metrics', {'Authorization': 'Bearer typed', 'X-Forwarded-For': '10.0.0.8'}).status,
                         401)
        log = self.read('gateway.log')
        for line in ('web 127.0.0.1: a login was refused\n', 'web 10.0.0.7: a change was refused\n',
                     'web 10.0.0.8: a wrong token was refused\n'):
            self.assertEqual(log.count(line), 1, log)
        self.assertNotIn('typed', log)
        self.assertNotIn('98765432', log)
        web = self.status()['web']
        self.assertEqual((web['refusedLogins'], web['refusedChanges']), (5, 5), web)
        self.assertIn(self.address.netloc, web['address'])
        shown = self.run_gateway('status', '--socket', 'g.sock').stdout
        self.assertRegex(shown, r'\npage: http://127\.0\.0\.1:\d+/, \d+ connections?, 5 logins refused, 5 changes refused\n')
        numbers = self.ask('GET', '/metrics', {'Authorization': 'Bearer ' + self.token}).text
        self.assertIn('\nmicro850_http_refused_logins_total 5\n', numbers)
        self.assertIn('\nmicro850_http_refused_changes_total 5\n', numbers)
        bearer = {'Authorization': 'Bearer ' + self.token}
        self.assertEqual(json.loads(self.ask('GET', '/api/v1/journal', bearer).text), {'writes': []})


class Token(Place):

    def test_is_made_once_for_its_owner_alone(self):
        token = self.make_token()
        self.assertRegex(token, r'\A[A-Za-z0-9_-]{43}\Z')
        self.assertEqual(self.read('web.token'), token + '\n')
        self.assertEqual(os.stat(self.path('web.token')).st_mode & 0o7777, 0o600)
        again = self.run_gateway('token', 'web.token')
        self.assertEqual((again.returncode, again.stdout), (2, ''))
        self.assertIn('web.token: it is there already (--replace', again.stderr)
        self.assertEqual(self.read('web.token'), token + '\n')
        other = self.make_token('--replace')
        self.assertNotEqual(other, token)
        self.assertEqual(self.read('web.token'), other + '\n')
        self.assertEqual(sorted(os.listdir(self.folder.name)), ['p.json', 'web.token'])

    def test_replaces_no_file_of_somebody_else(self):
        self.write('notes', 'a file of mine')
        os.symlink('notes', self.path('link'))
        os.mkfifo(self.path('pipe'))
        for name in ('notes', 'link', 'pipe'):
            made = self.run_gateway('token', '--replace', name)
            self.assertEqual((made.returncode, made.stdout), (2, ''), name)
            self.assertIn('is no token file', made.stderr)
        self.assertEqual(self.read('notes'), 'a file of mine')
        for name, status in (('.', 2), ('missing/web.token', 1), ('', 2)):
            made = self.run_gateway('token', name)
            self.assertEqual((made.returncode, made.stdout), (status, ''), name)
            self.assertEqual(made.stderr.count('\n'), 1, made.stderr)

    def test_goes_to_the_user_of_the_service(self):
        unknown = self.run_gateway('token', '--owner', 'nobody-knows-him', 'web.token')
        self.assertEqual(unknown.returncode, 2)
        self.assertIn('the system knows no user', unknown.stderr)
        self.assertFalse(os.path.exists(self.path('web.token')))
        if os.geteuid() != 0:
            return
        self.make_token('--owner', 'nobody')
        status = os.stat(self.path('web.token'))
        self.assertNotEqual(status.st_uid, 0)
        self.make_token('--replace')
        self.assertEqual(os.stat(self.path('web.token')).st_uid, status.st_uid)

    def test_is_needed_before_others_can_connect(self):
        for web in ({'address': '0.0.0.0'}, {'address': '::'}, {'proxies': ['127.0.0.1']}, {'writes': True}):
            self.configure(web)
            for arguments in (['gateway.json'], ['--check', 'gateway.json']):
                refused = self.run_gateway(*arguments)
                self.assertEqual(refused.returncode, 2)
                self.assertIn('needs a token' if 'writes' in web else 'a token is needed', refused.stderr)

    def test_is_refused_when_it_is_none_or_others_can_read_it(self):
        self.configure({'port': 0, 'tokenFile': 'web.token'})

        def complaint():
            for arguments in (['--check', 'gateway.json'], ['gateway.json']):
                refused = self.run_gateway(*arguments)
                self.assertEqual(refused.returncode, 2, refused.stderr)
                self.assertIn('web.tokenFile: ' + self.path('web.token') + ': ', refused.stderr)
            return refused.stderr

        self.assertIn('there is no such file', complaint())
        token = self.make_token()
        for mode in (0o640, 0o604, 0o620, 0o602, 0o601):
            os.chmod(self.path('web.token'), mode)
            self.assertIn('group or others', complaint())
        os.chmod(self.path('web.token'), 0o600)
        for content in ('', '\n', 'short\n', token + token, token[:-1] + '\n', token[:-1] + '\0'):
            self.write('web.token', content)
            message = complaint()
            self.assertIn('it has no token', message)
            self.assertNotIn(token[:-1], message)
        os.remove(self.path('web.token'))
        os.mkfifo(self.path('web.token'))
        os.chmod(self.path('web.token'), 0o600)
        self.assertIn('no file with a token', complaint())

    def test_is_another_one_after_a_reload_and_told_nowhere(self):
        token = self.make_token()
        web = {'port': 0, 'tokenFile': 'web.token', 'address': '127.0.0.1', 'writes': True}
        self.configure(web)
        process = self.start_gateway()

        def status(word):
            return self.ask('PUT', '/api/v1/values/Speed', {'Authorization': 'Bearer ' + word},
                            '{"value": 7, "check": true}').status
        self.assertEqual(status(token), 200)
        other = self.make_token('--replace')
        self.assertEqual(status(token), 200)
        self.assertEqual(self.run_gateway('reload', '--socket', 'g.sock').returncode, 0)
        self.assertEqual(status(token), 401)
        self.assertEqual(status(other), 200)
        os.chmod(self.path('web.token'), 0o644)
        refused = self.run_gateway('reload', '--socket', 'g.sock')
        self.assertEqual(refused.returncode, 1)
        self.assertIn('group or others', refused.stderr)
        self.assertEqual(status(other), 200)
        told = self.read('gateway.log') + refused.stderr
        told += self.run_gateway('status', '--json', '--socket', 'g.sock').stdout
        for target in ('/', '/login', '/metrics', '/api/v1/status', '/api/v1/session'):
            reply = self.ask('GET', target)
            told += reply.text + str(reply.headers)
        with open('/proc/%d/cmdline' % process.pid, encoding='utf-8') as line:
            told += line.read()
        with open('/proc/%d/environ' % process.pid, encoding='utf-8', errors='replace') as environment:
            told += environment.read()
        for word in (token, other):
            self.assertNotIn(word, told)


class Encrypted(Place):

    def test_page_has_tls_of_its_own(self):
        self.certificate('panel7', 'DNS:localhost', 'IP:127.0.0.1')
        self.make_token()
        self.configure({'port': 0, 'tokenFile': 'web.token', 'certificate': 'panel7.pem', 'key': 'panel7.key'})
        checked = self.run_gateway('--check', 'gateway.json')
        self.assertEqual(checked.returncode, 0, checked.stderr)
        self.assertIn('page at 127.0.0.1 port 0 encrypted', checked.stdout)
        self.start_gateway()
        self.assertEqual(self.address.scheme, 'https')
        reply = self.ask('GET', '/login', connection=http.client.HTTPSConnection(
            'localhost', self.address.port, context=self.trusting('panel7'), timeout=LIMIT_S))
        self.assertEqual(reply.status, 200)
        self.assertIn('Set-Cookie: __Host-micro850', str(reply.headers))
        self.assertIn('; Secure', reply.headers['Set-Cookie'])

    def test_renewed_certificate_is_shown_after_a_reload_and_a_wrong_one_refused(self):
        self.certificate('panel7', 'DNS:localhost')
        self.configure({'port': free_port(), 'certificate': 'panel7.pem', 'key': 'panel7.key'})
        self.start_gateway()

        def shown():
            return ssl.get_server_certificate(('127.0.0.1', self.address.port), timeout=LIMIT_S).strip()
        first = self.read('panel7.pem').strip()
        self.assertEqual(shown(), first)
        self.write('panel7.pem', 'nothing')
        refused = self.run_gateway('reload', '--socket', 'g.sock')
        self.assertEqual(refused.returncode, 1)
        self.assertIn('web.certificate: ', refused.stderr)
        self.assertEqual(shown(), first)
        self.certificate('panel7', 'DNS:localhost')
        second = self.read('panel7.pem').strip()
        self.assertNotEqual(second, first)
        self.assertEqual(self.run_gateway('reload', '--socket', 'g.sock').returncode, 0)
        self.assertEqual(shown(), second)

    def test_log_names_an_address_that_helps(self):
        self.make_token()
        port = free_port()
        for hosts, named in (([], 'port %d of every address of this machine' % port),
                             (['panel7.plant', 'p7'], 'http://panel7.plant:%d/' % port)):
            self.configure({'port': port, 'tokenFile': 'web.token', 'address': '0.0.0.0', 'hosts': hosts})
            process = self.start_gateway()
            self.assertEqual(re.findall(r'the page is at (.+)\n', self.read('gateway.log')), [named])
            process.terminate()
            process.wait(LIMIT_S)

    def test_check_notes_a_port_where_the_service_cannot_listen(self):
        for port, is_noted in ((1, True), (80, True), (1023, True), (1024, False), (0, False)):
            self.configure({'port': port})
            checked = self.run_gateway('--check', 'gateway.json')
            self.assertEqual(checked.returncode, 0, checked.stderr)
            self.assertEqual('note: gateway.json: web.port: the installed service cannot listen at %d ' % port
                             in checked.stderr, is_noted, checked.stderr)

    def test_reload_moves_the_page_or_leaves_it_where_it_is(self):
        token = self.make_token()
        self.configure({'port': free_port(), 'tokenFile': 'web.token', 'address': '0.0.0.0'})
        self.start_gateway()
        self.assertEqual(self.ask('GET', '/api/v1/values').status, 401)
        with socket.socket() as other:
            other.bind(('127.0.0.1', 0))
            other.listen()
            # What needs no token at all cannot listen: others still need it.
            self.configure({'port': other.getsockname()[1]})
            refused = self.run_gateway('reload', '--socket', 'g.sock')
            self.assertEqual(refused.returncode, 1)
            self.assertIn('another program listens there', refused.stderr)
        self.assertEqual(self.ask('GET', '/api/v1/values').status, 401)
        self.assertEqual(self.ask('GET', '/api/v1/values', {'Authorization': 'Bearer ' + token}).status, 200)
        self.configure({'port': 0})
        self.assertEqual(self.run_gateway('reload', '--socket', 'g.sock').returncode, 0)
        with self.assertRaises(ConnectionError):
            self.ask('GET', '/')
        self.find_page()
        self.assertEqual(self.ask('GET', '/api/v1/values').status, 200)
        self.configure_without_page()
        self.assertEqual(self.run_gateway('reload', '--socket', 'g.sock').returncode, 0)
        with self.assertRaises(ConnectionError):
            self.ask('GET', '/')
        self.assertIn('there is no page any more', self.read('gateway.log'))

    def test_page_comes_back_when_neither_the_new_place_nor_the_old_one_could_be_used(self):
        self.certificate('panel7', 'DNS:localhost')
        self.more = {'history': {'file': 'h.sqlite'}}
        port = free_port()
        self.configure({'port': port, 'certificate': 'panel7.pem', 'key': 'panel7.key'})
        process = self.start_gateway()
        os.rename(self.path('panel7.key'), self.path('away'))
        self.make_token()
        other = socket.socket()
        self.addCleanup(other.close)
        other.bind(('127.0.0.2', port))
        other.listen()
        self.configure({'port': port, 'address': '192.0.2.1', 'tokenFile': 'web.token'})
        self.assertEqual(self.run_gateway('reload', '--socket', 'g.sock').returncode, 1)
        self.assertNotIn('problem', self.status()['web'], 'a place beside it is no hindrance')
        self.configure({'port': port, 'address': '0.0.0.0', 'tokenFile': 'web.token'})
        for _ in range(2):
            self.assertEqual(self.run_gateway('reload', '--socket', 'g.sock').returncode, 1)
            self.assertIsNone(process.poll())
            web = self.status()['web']
            self.assertIn('web.key: ', web['problem'])
        self.assertIn('cannot listen (web.key: ', self.run_gateway('status', '--socket', 'g.sock').stdout)
        self.assertEqual(self.read('gateway.log').count('there is no page: web.key: '), 1)
        # One that asks for no other place goes through: the page is tried again there.
        self.configure({'port': port, 'certificate': 'panel7.pem', 'key': 'panel7.key'})
        self.assertEqual(self.run_gateway('reload', '--socket', 'g.sock').returncode, 0)
        os.rename(self.path('away'), self.path('panel7.key'))
        wait_until(lambda: 'there is a page again' in self.read('gateway.log'), 'the page')
        self.assertNotIn('problem', self.status()['web'])
        self.assertIn('BEGIN', ssl.get_server_certificate(('127.0.0.1', port), timeout=LIMIT_S))
        trusted = self.trusting('panel7')
        trusted.check_hostname = False

        def alarms():
            connection = http.client.HTTPSConnection('127.0.0.1', port, timeout=LIMIT_S, context=trusted)
            states = [one['state'] for one in json.loads(self.ask('GET', '/api/v1/alarms', connection=connection).text)['alarms']]
            return 'page stopped' in states and 'page served' in states
        wait_until(alarms, 'the alarms in the history')

    def test_reload_moves_the_page_to_all_addresses_at_the_same_port_and_back(self):
        port = free_port()
        self.make_token()
        self.configure({'port': port})
        self.start_gateway()
        for address in ('0.0.0.0', '127.0.0.1', '::', '127.0.0.1'):
            self.configure({'port': port, 'address': address, 'tokenFile': 'web.token'})
            reloaded = self.run_gateway('reload', '--socket', 'g.sock')
            self.assertEqual(reloaded.returncode, 0, reloaded.stderr)
            self.assertEqual(self.ask('GET', '/healthz').status, 200)

    def test_check_refuses_a_key_that_is_not_the_certificates(self):
        self.certificate('panel7', 'DNS:localhost')
        self.certificate('other', 'DNS:localhost')
        self.configure({'port': 0, 'certificate': 'panel7.pem', 'key': 'other.key'})
        for arguments in (['gateway.json'], ['--check', 'gateway.json']):
            refused = self.run_gateway(*arguments)
            self.assertEqual(refused.returncode, 2, refused.stderr)
            self.assertIn('web.key: ', refused.stderr)


class Nginx(Place):
    """The example, with the ports and the files of the test."""

    def setUp(self):
        super().setUp()
        self.token = self.make_token()
        self.certificate('panel7', 'DNS:panel7.plant.example')
        self.configure({'port': 0, 'tokenFile': 'web.token', 'writes': True, 'hosts': ['panel7.plant.example'],
                        'proxies': ['127.0.0.1']})
        self.start_gateway()
        self.port = free_port()
        plain = free_port()
        with open(os.path.join(SOURCE, 'examples/nginx.conf'), encoding='utf-8') as file:
            example = file.read()
        for old, new in (('listen 443 ', 'listen 127.0.0.1:%d ' % self.port), ('listen 80;', 'listen 127.0.0.1:%d;' % plain),
                         ('    listen [::]:443 ssl http2;\n', ''), ('    listen [::]:80;\n', ''),
                         ('/etc/ssl/certs/panel7.pem', self.path('panel7.pem')),
                         ('/etc/ssl/private/panel7.key', self.path('panel7.key')),
                         ('127.0.0.1:8850', '127.0.0.1:%d' % self.address.port)):
            self.assertIn(old, example)
            example = example.replace(old, new)
        temporary = ''.join('  %s_temp_path %s;\n' % (kind, self.path('temp-' + kind))
                            for kind in ('client_body', 'proxy', 'fastcgi', 'uwsgi', 'scgi'))
        user = 'user root;\n' if os.geteuid() == 0 else ''
        self.write('nginx.conf', user + 'daemon off;\nmaster_process off;\npid %s;\nerror_log stderr;\nevents {}\n'
                   'http {\n  access_log off;\n%s%s}\n' % (self.path('nginx.pid'), temporary, example))
        self.start(['nginx', '-p', self.folder.name, '-e', 'stderr', '-c', self.path('nginx.conf')], 'nginx.log')

        def listens():
            with socket.socket() as probe:
                return probe.connect_ex(('127.0.0.1', self.port)) == 0
        wait_until(listens, 'nginx: ' + self.read('nginx.log'))

    def connect(self):
        """To nginx, by the name of the server."""
        name = 'panel7.plant.example'
        raw = socket.create_connection(('127.0.0.1', self.port), LIMIT_S)
        connection = http.client.HTTPConnection(name, self.port, timeout=LIMIT_S)
        connection.sock = self.trusting('panel7').wrap_socket(raw, server_hostname=name)
        return connection

    def through(self, method, target, headers=None, body=None):
        return self.ask(method, target, headers, body, self.connect())

    def test_page_login_and_write_come_through(self):
        page = self.through('GET', '/')
        self.assertEqual(page.status, 200)
        self.assertIn('<html', page.text)
        self.assertEqual(self.through('GET', '/api/v1/values').status, 401)
        login = self.through('GET', '/login')
        form = login.headers['Set-Cookie'].split(';')[0]
        field = re.search(r'name="synchronizer" type="hidden" value="([^"]+)"', login.text).group(1)
        origin = 'https://panel7.plant.example:%d' % self.port
        filled = urllib.parse.urlencode({'token': self.token, 'synchronizer': field, 'view': '#/journal'})
        kind = {'Content-Type': 'application/x-www-form-urlencoded', 'Cookie': form}
        self.assertEqual(self.through('POST', '/login', {**kind, 'Origin': 'https://evil.example'}, filled).status, 403)
        done = self.through('POST', '/login', {**kind, 'Origin': origin, 'Sec-Fetch-Site': 'same-origin'}, filled)
        self.assertEqual((done.status, done.headers['Location']), (303, '/#/journal'))
        cookie = done.headers.get_all('Set-Cookie')[0]
        self.assertTrue(cookie.startswith('__Host-micro850-'), cookie)
        self.assertIn('; HttpOnly; SameSite=Strict; Secure', cookie)
        browser = {'Cookie': cookie.split(';')[0]}
        self.assertEqual(self.through('GET', '/api/v1/values', browser).status, 200)
        session = json.loads(self.through('GET', '/api/v1/session', browser).text)
        self.assertTrue(session['mayWrite'])
        put = ('PUT', '/api/v1/values/Speed')
        body = '{"value": 7, "check": true}'
        self.assertEqual(self.through(*put, browser, body).status, 403)
        browser['X-Synchronizer'] = session['synchronizer']
        self.assertEqual(self.through(*put, {**browser, 'Origin': origin}, body).status, 200)
        self.assertEqual(self.through(*put, {**browser, 'Origin': 'null'}, body).status, 403)

    def test_events_come_at_once(self):
        connection = self.connect()
        connection.request('GET', '/api/v1/events', headers={'Authorization': 'Bearer ' + self.token})
        reply = connection.getresponse()
        self.assertEqual((reply.status, reply.headers['Content-Type']), (200, 'text/event-stream'))
        seen = set()
        while not {'snapshot', 'status', 'ages'} <= seen:
            line = reply.readline().decode()
            self.assertTrue(line, 'the stream ended')
            if line.startswith('event: '):
                seen.add(line[len('event: '):].strip())
        connection.close()

    def test_clients_are_told_apart_and_cannot_claim_to_be_others(self):
        wrong = {'Authorization': 'Bearer wrong'}
        for number in range(3):
            reply = self.through('GET', '/metrics', {**wrong, 'X-Forwarded-For': '10.0.0.%d' % number})
            self.assertEqual(reply.status, 401)
        refused = self.through('GET', '/metrics', {**wrong, 'X-Forwarded-For': '10.0.0.9'})
        self.assertEqual(refused.status, 429)
        self.assertGreaterEqual(int(refused.headers['Retry-After']), 1)
        # The proxy itself may tell of another client, and that one is not slowed.
        direct = self.ask('GET', '/metrics', {**wrong, 'X-Forwarded-For': '10.0.0.9'})
        self.assertEqual(direct.status, 401)

    def test_other_names_and_http2(self):
        connection = self.connect()
        self.assertEqual(self.ask('GET', '/', {'Host': 'evil.example'}, None, connection).status, 421)
        found = subprocess.run(
            ['curl', '-s', '--http2', '--cacert', self.path('panel7.pem'), '-o', '/dev/null', '-w',
             '%{http_version} %{http_code}', '--resolve', 'panel7.plant.example:%d:127.0.0.1' % self.port,
             '-H', 'Authorization: Bearer ' + self.token,
             'https://panel7.plant.example:%d/api/v1/values' % self.port],
            capture_output=True, text=True, timeout=LIMIT_S, check=False)
        self.assertEqual(found.stdout, '2 200', found.stderr)


if __name__ == '__main__':
    unittest.main(argv=sys.argv[:1])
