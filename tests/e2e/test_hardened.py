"""Machines whose cipher libraries are kept from old algorithms: clients' log-ons need these all the same."""

import unittest

from harness import SiteTest

ONLY_APPROVED = '''openssl_conf = openssl_init
[openssl_init]
providers = providers
alg_section = algorithms
[providers]
fips = fips
[fips]
activate = 1
module = /nowhere/fips.so
[algorithms]
default_properties = fips=yes
'''


class Hardened(SiteTest):
    def test_log_ons_and_protected_calls_work_where_nothing_but_approved_algorithms_is_left(self):
        self.site.write('openssl.cnf', ONLY_APPROVED)
        self.site.start(environment={'OPENSSL_CONF': self.site.path('openssl.cnf')}).started()
        for level in ('integrity', 'privacy'):
            client = self.client(items=['North.Stack1.NOx'], level=level)
            self.assertEqual(client('read')['errors'], [0])
            client('close')


if __name__ == '__main__':
    unittest.main()
