"""A throw-away domain with all services, and this machine joined to it in a mount namespace of its own, in which winbind
runs. Needs root on the machine itself. Takes orders on its standard input and ends with it.

    member.py FOLDER     writes FOLDER/krb5.conf, FOLDER/sids.json, FOLDER/member (a process in the member's namespace), then "ready"

Orders: kill, freeze, thaw, start (the controller), stop-winbind, start-winbind; each is answered by its name.
"""

import os
import signal
import subprocess
import sys
import time

import domain

domain.ADDRESS, MEMBER = '10.53.57.30', '10.53.57.40'
domain.KRB5_CONF = domain.KRB5_CONF.replace('10.53.57.10', domain.ADDRESS)
domain.SMB_CONF = domain.SMB_CONF.replace('server services = ldap, cldap, kdc, dns', '''ldap server require strong auth = no
server services = s3fs, rpc, ldap, cldap, kdc, dns, winbindd''')
MEMBER_CONF = '''[global]
netbios name = OPCBOX
realm = {realm}
workgroup = {short}
security = ads
kerberos method = dedicated keytab
dedicated keytab file = {root}/keytab
interfaces = {address}/24
bind interfaces only = yes
idmap config * : backend = tdb
idmap config * : range = 10000-19999
winbind request timeout = 20
private dir = {root}/private
state directory = {root}/state
cache directory = {root}/cache
lock directory = {root}/lock
pid directory = {root}/pid
log file = {root}/log
logging = file
'''


class Member:
    def __init__(self, folder):
        self.folder, self.root = folder, f'{folder}/member-root'
        os.makedirs(self.root)
        for name in ('private', 'state', 'cache', 'lock', 'pid'):
            os.makedirs(f'{self.root}/{name}')
        self.configuration = f'{self.root}/smb.conf'
        with open(self.configuration, 'w') as file:
            file.write(MEMBER_CONF.format(realm=domain.REALM, short=domain.SHORT, address=MEMBER, root=self.root))
        self.winbind = None

    def prepare(self):
        subprocess.run(['ip', 'address', 'add', f'{MEMBER}/24', 'dev', 'lo'], check=False, stderr=subprocess.DEVNULL)
        # In a namespace below the controller's, so that its own sockets stay where they are.
        self.holder = subprocess.Popen(['unshare', '-m', 'sh', '-c', 'for d in /run/samba /var/cache/samba /var/lib/samba '
                                        '/etc/samba; do mount -t tmpfs member $d; done; '
                                        f'cp {self.configuration} /etc/samba/smb.conf; read pid rest </proc/self/stat; '
                                        'echo $pid; exec sleep infinity'], stdout=subprocess.PIPE, text=True)
        self.number = int(self.holder.stdout.readline())  # as those outside know it
        with open(f'{self.folder}/member', 'w') as file:
            file.write(str(self.number))

    def run(self, *command, **options):
        return subprocess.Popen(['nsenter', f'--mount=/proc/{self.number}/ns/mnt', *command], **options)

    def join(self):
        done = self.run('net', 'ads', 'join', '-s', self.configuration, '-U', f'Administrator%{domain.PASSWORD}',
                        '--no-dns-updates')
        if done.wait(60):
            raise SystemExit('the machine cannot be joined')

    def start_winbind(self):
        self.winbind = self.run('winbindd', '-s', self.configuration, '-F', '--no-process-group',
                                stdin=subprocess.DEVNULL)
        deadline = time.monotonic() + 60
        while self.run('wbinfo', '-t', stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).wait():
            if self.winbind.poll() is not None or time.monotonic() > deadline:
                raise SystemExit('winbind does not start')
            time.sleep(0.1)

    def stop_winbind(self):
        self.winbind.terminate()
        self.winbind.wait()

    def end(self):
        for process in (self.winbind, self.holder):
            if process:
                process.kill()
                process.wait()


class Controller:
    def __init__(self, configuration):
        self.configuration = configuration
        self.start()

    def start(self):
        self.process = subprocess.Popen(['samba', '-s', self.configuration, '-i', '-M', 'standard', '--no-process-group'],
                                        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                        start_new_session=True)
        deadline = time.monotonic() + 60
        while not all(domain.serves(port) for port in (88, 389, 445, 135)):
            if self.process.poll() is not None or time.monotonic() > deadline:
                raise SystemExit('the controller does not start')
            time.sleep(0.05)

    def signal(self, number):
        os.killpg(self.process.pid, number)

    def kill(self):
        self.signal(signal.SIGKILL)
        self.process.wait()


def main():
    folder = sys.argv[1]
    root = f'{folder}/root'
    domain.prepare(folder, root)
    configuration = domain.provision(root)
    controller = Controller(configuration)
    member = Member(folder)
    try:
        domain.populate(folder, configuration, root)
        member.prepare()
        member.join()
        member.start_winbind()
        print('ready', flush=True)
        orders = {'kill': controller.kill, 'start': controller.start,
                  'freeze': lambda: controller.signal(signal.SIGSTOP), 'thaw': lambda: controller.signal(signal.SIGCONT),
                  'stop-winbind': member.stop_winbind, 'start-winbind': member.start_winbind}
        for line in sys.stdin:
            orders[line.strip()]()
            print(line.strip(), flush=True)
    finally:
        member.end()
        controller.signal(signal.SIGCONT)
        controller.kill()


if __name__ == '__main__':
    main()
