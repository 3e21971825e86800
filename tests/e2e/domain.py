"""A throw-away Windows-style domain on this machine: a controller by Samba in a mount namespace of its own, started in some
seconds, without root where user namespaces are to be had. Run by tests as a process that ends with its standard input.

    domain.py FOLDER     writes FOLDER/keytab, FOLDER/krb5.conf, FOLDER/sids.json, then "ready"
"""

import json
import os
import socket
import subprocess
import sys
import time

REALM, SHORT = 'EXAMPLE.TEST', 'EXAMPLE'
ADDRESS = '10.53.57.10'
HOST = 'opc.example.test'
PASSWORD = 'Passw0rd.of-the-plant'
KRB5_CONF = f'''[libdefaults]
default_realm = {REALM}
dns_lookup_kdc = false
dns_lookup_realm = false
rdns = false
dns_canonicalize_hostname = false
clockskew = 5
[realms]
{REALM} = {{
    kdc = {ADDRESS}
}}
[domain_realm]
.example.test = {REALM}
'''
SMB_CONF = '''[global]
netbios name = DC1
realm = {realm}
workgroup = {short}
server role = active directory domain controller
interfaces = {address}/24
bind interfaces only = yes
server services = ldap, cldap, kdc, dns
private dir = {root}/private
state directory = {root}/state
cache directory = {root}/cache
lock directory = {root}/lock
pid directory = {root}/pid
ncalrpc dir = {root}/ncalrpc
binddns dir = {root}/binddns
ntp signd socket directory = {root}/ntp
log file = {root}/log
logging = file
tls enabled = no
dns update command = /bin/true
'''


def prepare(folder, root):
    """Mounts of our own over what Samba's programs and the clients look at."""
    subprocess.run(['ip', 'address', 'add', f'{ADDRESS}/24', 'dev', 'lo'], check=False, stderr=subprocess.DEVNULL)
    subprocess.run(['mount', '--make-rprivate', '/'], check=True)
    os.makedirs(root)
    subprocess.run(['mount', '-t', 'tmpfs', 'domain', root], check=True)
    for name in ('samba', 'private', 'state', 'cache', 'lock', 'pid', 'ncalrpc', 'binddns', 'ntp', 'etc'):
        os.makedirs(f'{root}/{name}')
    for path in ('/etc/samba', '/var/lib/samba', '/run/samba', '/var/log/samba', '/var/cache/samba'):
        if os.path.isdir(path):
            subprocess.run(['mount', '-t', 'tmpfs', 'domain', path], check=True)
    with open(f'{folder}/krb5.conf', 'w') as file:
        file.write(KRB5_CONF)
    with open(f'{folder}/resolv.conf', 'w') as file:
        file.write(f'nameserver {ADDRESS}\n')
    for name in ('hosts', 'resolv.conf'):
        subprocess.run(['mount', '--bind', f'{folder}/{name}', f'/etc/{name}'], check=True)
    os.environ['KRB5_CONFIG'] = f'{folder}/krb5.conf'


def provision(root):
    import samba.netcmd.main
    import samba.provision
    # Without root nobody can set the rights of a share that nobody uses here.
    samba.provision.setsysvolacl = lambda *_, **__: None
    command = samba.netcmd.main.cmd_sambatool()
    arguments = ['domain', 'provision', f'--realm={REALM}', f'--domain={SHORT}', '--server-role=dc',
                 '--dns-backend=SAMBA_INTERNAL', f'--adminpass={PASSWORD}', f'--targetdir={root}/made',
                 '--host-name=dc1', f'--host-ip={ADDRESS}', f'--option=interfaces={ADDRESS}/24',
                 '--option=bind interfaces only=yes']
    result = command._run('samba-tool', *arguments)
    if result:
        raise SystemExit(f'provisioning failed: {result}')
    configuration = SMB_CONF.format(realm=REALM, short=SHORT, address=ADDRESS, root=f'{root}/made')
    for name in ('lock', 'pid', 'ncalrpc', 'binddns', 'ntp'):
        os.makedirs(f'{root}/made/{name}', exist_ok=True)
    with open(f'{root}/smb.conf', 'w') as file:
        file.write(configuration)
    return f'{root}/smb.conf'


def populate(folder, configuration, root):
    """alice is a member of a group of a group that may come in, bob of no group; the service's keys."""
    import ldb
    from samba import param
    from samba.auth import system_session
    from samba.net import Net
    from samba.samdb import SamDB
    settings = param.LoadParm()
    settings.load(configuration)
    directory = SamDB(url=f'{root}/made/private/sam.ldb', session_info=system_session(), lp=settings)
    for name in ('alice', 'bob', 'carol', 'svc-opc', 'svc-other'):
        directory.newuser(name, PASSWORD)
    for group, members in (('OPC Readers', ['carol']), ('Operators', ['alice'])):
        directory.newgroup(group)
        directory.add_remove_group_members(group, members)
    directory.add_remove_group_members('OPC Readers', ['Operators'])
    for account, host in (('svc-opc', HOST), ('svc-other', f'other.{REALM.lower()}')):
        found, = directory.search(expression=f'(sAMAccountName={account})', attrs=[])
        change = ldb.Message(found.dn)
        change['spn'] = ldb.MessageElement(f'host/{host}', ldb.FLAG_MOD_ADD, 'servicePrincipalName')
        change['types'] = ldb.MessageElement('24', ldb.FLAG_MOD_REPLACE, 'msDS-SupportedEncryptionTypes')
        directory.modify(change)
    Net(None, settings).export_keytab(keytab=f'{folder}/keytab', principal=f'host/{HOST}')
    sids = {}
    for name in ('OPC Readers', 'alice', 'bob'):
        found, = directory.search(expression=f'(sAMAccountName={name})', attrs=['objectSid'])
        sids[name] = directory.schema_format_value('objectSid', found['objectSid'][0]).decode()
    with open(f'{folder}/sids.json', 'w') as file:
        json.dump(sids, file)


def serves(port):
    with socket.socket() as probe:
        return probe.connect_ex((ADDRESS, port)) == 0


def main():
    folder = sys.argv[1]
    root = f'{folder}/root'
    prepare(folder, root)
    configuration = provision(root)
    controller = subprocess.Popen(['samba', '-s', configuration, '-i', '-M', 'single', '--no-process-group'],
                                  stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        populate(folder, configuration, root)
        deadline = time.monotonic() + 20
        while not (serves(88) and serves(389)):
            if controller.poll() is not None or time.monotonic() > deadline:
                raise SystemExit('the controller does not start')
            time.sleep(0.05)
        print('ready', flush=True)
        sys.stdin.read()
    finally:
        controller.kill()
        controller.wait()


if __name__ == '__main__':
    main()
