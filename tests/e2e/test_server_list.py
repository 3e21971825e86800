"""Programs that know the server by its kind or its name only find its class at the same address."""

import unittest

from harness import ClientError, ImpacketClient, LOGON, SiteTest

OURS = '43FB6634-CC72-4EE9-A292-BEDF9FF018BD'
DA1, DA2 = '63D5F430-CFE4-11D1-B2C8-0060083BA1FB', '63D5F432-CFE4-11D1-B2C8-0060083BA1FB'
DA3 = 'CC603642-66D7-48F1-B69A-B625E73652D7'
NAMES = ['Ombrel.QuelmOPCServer.5', 'Quelm 5 OPC DA Server', 'Ombrel.QuelmOPCServer']
FOUND = [[OURS, *NAMES[:2], OURS], [OURS, *NAMES, OURS]]
NOBODY = {'user': '', 'password': '', 'domain': '', 'level': 'none'}


class ServerList(SiteTest):
    def servers(self, category=DA2, **logon):
        client = ImpacketClient()
        self.addCleanup(client.kill)
        return client('servers', category=category, address=self.site.address, **{**LOGON, **logon})

    def test_the_server_is_found_with_a_log_on_and_where_that_is_set_without_one(self):
        self.site.start().started()
        self.assertEqual(self.servers(), FOUND)
        self.assertEqual(self.servers(DA3), FOUND)
        self.assertEqual(self.servers(DA1), FOUND)
        self.assertEqual(self.servers(OURS), [])
        with self.refused('did not log on'), self.assertRaises(ClientError):
            self.servers(**NOBODY)
        self.assertFalse(self.site.logged('OPC client'), 'whoever asks is no client')
        self.site.terminate()
        self.assertEqual(self.site.exit_code(10), 0, 'and does not keep the server')

        self.site.edit('dcom.conf', ('[Security]', '[Security]\nOpenServerList = yes'))
        self.site.start().started()
        self.assertEqual(self.servers(**NOBODY), FOUND)
        self.assertEqual(self.servers(**LOGON), FOUND)
        client = ImpacketClient()
        self.addCleanup(client.kill)
        with self.refused('did not log on'), self.assertRaises(ClientError):
            client('connect', address=self.site.address, **NOBODY)
        self.assert_serves()


if __name__ == '__main__':
    unittest.main()
