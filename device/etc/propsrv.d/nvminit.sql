-- The properties of a Halcyon 5 ADV, as they are on a device that comes out of the box. The daemon has the sqlite3
-- shell run this script when the database file is missing or is to be built anew.
--
-- One row is one property. What its columns mean, the bits of `flags` and the rules a value has to obey are described
-- in propsrv-files(5). NULL stands where a column does not apply. No value or default holds ";" or a line break: a
-- backup could not be read back. A new default is in force on new databases only.
--
-- A key that is renamed or removed needs NVM.Version raised and a migration file of that number.

BEGIN;

CREATE TABLE settings(key TEXT PRIMARY KEY check(length(key) <= 64), value TEXT check(length(value) <= 256), webui TEXT, provisioning TEXT, tr069 TEXT, range_min INTEGER, range_max INTEGER, regexp TEXT, enum TEXT, flags INTEGER, defaultvalues TEXT check(length(defaultvalues) <= 256));

-- The database version: the number of the last migration file.
INSERT INTO settings (key, defaultvalues, flags) VALUES
('NVM.Version', '5', 1);

-- System. What has no default here is filled in at every start.
INSERT INTO settings
(key, defaultvalues, flags, webui, provisioning, tr069, range_min, range_max, enum, regexp) VALUES
('System.General.Variant.Name',         '',               5,  'ModelName',             NULL,                                'Device.DeviceInfo.ModelName',                       NULL,  NULL,  NULL, NULL),
('System.General.Variant.MajorID',      '3',              5,  NULL,                    NULL,                                'Device.DeviceInfo.HardwareVersion',                 NULL,  NULL,  NULL, NULL),
('System.General.Variant.MinorID',      '1',              5,  NULL,                    NULL,                                NULL,                                                NULL,  NULL,  NULL, NULL),
('System.General.ExperimentalFeatures', '0',              1,  NULL,                    NULL,                                NULL,                                                NULL,  NULL,  '0,1', NULL),
('System.General.SoftwareVersion',      '',               5,  'SoftwareVersion',       NULL,                                'Device.DeviceInfo.SoftwareVersion',                 NULL,  NULL,  NULL, NULL),
('System.General.UserAgent',            '',               5,  NULL,                    NULL,                                NULL,                                                NULL,  NULL,  NULL, NULL),
('System.General.Language',             'en',             14, 'Language',              'system.language',                   'Device.UserInterface.CurrentLanguage',              NULL,  NULL,  'en,de,fr,it,es,nl,pl,pt,sv', NULL),
('System.General.Country',              'GB',             30, 'Country',               'system.country',                    'Device.X_HALCYON_System.Country',                   NULL,  NULL,  NULL, '^[A-Z]{2}$'),
('System.General.Location',             '',               14, 'Location',              'system.location',                   'Device.X_HALCYON_System.Location',                  NULL,  NULL,  NULL, NULL),
('System.General.Contact',              '',               14, 'Contact',               'system.contact',                    'Device.X_HALCYON_System.Contact',                   NULL,  NULL,  NULL, NULL),
('System.General.AssetTag',             '',               16, 'AssetTag',              'system.asset_tag',                  'Device.X_HALCYON_System.AssetTag',                  NULL,  NULL,  NULL, '^[A-Za-z0-9._-]{0,32}$'),
('System.General.SetupDone',            '0',              2,  'SetupDone',             NULL,                                NULL,                                                NULL,  NULL,  '0,1', NULL),
('System.Reboot.Nightly',               '0',              6,  'RebootNightly',         'system.reboot.nightly',             'Device.X_HALCYON_System.Reboot.Nightly',            NULL,  NULL,  '0,1', NULL),
('System.Reboot.Time',                  '03:30',          6,  'RebootTime',            'system.reboot.time',                'Device.X_HALCYON_System.Reboot.Time',               NULL,  NULL,  NULL, '^([01][0-9]|2[0-3]):[0-5][0-9]$'),
('System.Reboot.Count',                 '0',              4,  NULL,                    NULL,                                NULL,                                                0,     NULL,  NULL, NULL);

-- What each of the device's programs logs: 2 errors, 4 warnings, 8 info, 16 debug.
INSERT INTO settings
(key, defaultvalues, flags, webui, provisioning, tr069, range_min, range_max, enum, regexp) VALUES
('System.Debug.LevelMask.PROP-SRV',     '14',             6,  'LogMaskProperties',     'log.mask.properties',               NULL,                                                0,     31,    NULL, '^[0-9]{1,2}$'),
('System.Debug.LevelMask.SIP-UA',       '14',             6,  'LogMaskSip',            'log.mask.sip',                      NULL,                                                0,     31,    NULL, '^[0-9]{1,2}$'),
('System.Debug.LevelMask.AUDIO',        '14',             6,  'LogMaskAudio',          'log.mask.audio',                    NULL,                                                0,     31,    NULL, '^[0-9]{1,2}$'),
('System.Debug.LevelMask.WEB-UI',       '14',             6,  'LogMaskWeb',            'log.mask.web',                      NULL,                                                0,     31,    NULL, '^[0-9]{1,2}$'),
('System.Debug.LevelMask.PANEL',        '14',             6,  'LogMaskPanel',          'log.mask.panel',                    NULL,                                                0,     31,    NULL, '^[0-9]{1,2}$'),
('System.Debug.LevelMask.PROV',         '14',             6,  'LogMaskProvisioning',   'log.mask.provisioning',             NULL,                                                0,     31,    NULL, '^[0-9]{1,2}$'),
('System.Debug.LevelMask.TR069',        '14',             6,  'LogMaskTr069',          'log.mask.tr069',                    NULL,                                                0,     31,    NULL, '^[0-9]{1,2}$'),
('System.Debug.LevelMask.PHONEBOOK',    '14',             6,  'LogMaskPhoneBook',      'log.mask.phonebook',                NULL,                                                0,     31,    NULL, '^[0-9]{1,2}$'),
('System.Log.Syslog.Enabled',           '0',              6,  'SyslogEnabled',         'log.syslog.enabled',                'Device.X_HALCYON_Log.Syslog.Enable',                NULL,  NULL,  '0,1', NULL),
('System.Log.Syslog.Server',            '',               6,  'SyslogServer',          'log.syslog.server',                 'Device.X_HALCYON_Log.Syslog.Server',                NULL,  NULL,  NULL, '^[A-Za-z0-9.:-]*$'),
('System.Log.Syslog.Port',              '514',            6,  'SyslogPort',            'log.syslog.port',                   'Device.X_HALCYON_Log.Syslog.Port',                  1,     65535, NULL, NULL),
('System.Log.Syslog.Facility',          'local0',         6,  NULL,                    'log.syslog.facility',               NULL,                                                NULL,  NULL,  'user,daemon,local0,local1,local2,local3', NULL);

-- Network.
INSERT INTO settings
(key, defaultvalues, flags, webui, provisioning, tr069, range_min, range_max, enum, regexp) VALUES
('NET.MAC.Address',                     '',               5,  'MacAddress',            NULL,                                'Device.Ethernet.Interface.1.MACAddress',            NULL,  NULL,  NULL, NULL),
('NET.General.DeviceNameInNetwork',     'Halcyon',        14, 'DeviceName',            'net.device_name',                   'Device.X_HALCYON_Network.DeviceName',               NULL,  NULL,  NULL, '^[A-Za-z0-9]([A-Za-z0-9-]{0,61}[A-Za-z0-9])?$'),
('NET.General.Domain',                  '',               6,  'Domain',                'net.domain',                        NULL,                                                NULL,  NULL,  NULL, '^[A-Za-z0-9.-]*$'),
('NET.General.MTU',                     '1500',           6,  'Mtu',                   'net.mtu',                           'Device.IP.Interface.1.MaxMTUSize',                  576,   1500,  NULL, NULL),
('NET.IPv4.Mode',                       'DHCP',           6,  'Ipv4Mode',              'net.ipv4.mode',                     'Device.IP.Interface.1.IPv4Address.1.AddressingType', NULL, NULL,  'DHCP,Static', NULL),
('NET.IPv4.Address',                    '',               6,  'Ipv4Address',           'net.ipv4.address',                  'Device.IP.Interface.1.IPv4Address.1.IPAddress',     NULL,  NULL,  NULL, '^(((25[0-5]|2[0-4][0-9]|1?[0-9]?[0-9])\.){3}(25[0-5]|2[0-4][0-9]|1?[0-9]?[0-9]))?$'),
('NET.IPv4.SubnetMask',                 '',               6,  'Ipv4SubnetMask',        'net.ipv4.subnet_mask',              'Device.IP.Interface.1.IPv4Address.1.SubnetMask',    NULL,  NULL,  NULL, '^(((25[0-5]|2[0-4][0-9]|1?[0-9]?[0-9])\.){3}(25[0-5]|2[0-4][0-9]|1?[0-9]?[0-9]))?$'),
('NET.IPv4.Gateway',                    '',               6,  'Ipv4Gateway',           'net.ipv4.gateway',                  'Device.Routing.Router.1.IPv4Forwarding.1.GatewayIPAddress', NULL, NULL, NULL, '^(((25[0-5]|2[0-4][0-9]|1?[0-9]?[0-9])\.){3}(25[0-5]|2[0-4][0-9]|1?[0-9]?[0-9]))?$'),
('NET.DNS.Primary',                     '',               6,  'DnsPrimary',            'net.dns.primary',                   'Device.DNS.Client.Server.1.DNSServer',              NULL,  NULL,  NULL, '^[0-9A-Fa-f.:]*$'),
('NET.DNS.Secondary',                   '',               6,  'DnsSecondary',          'net.dns.secondary',                 'Device.DNS.Client.Server.2.DNSServer',              NULL,  NULL,  NULL, '^[0-9A-Fa-f.:]*$'),
('NET.IPv6.Mode',                       'Off',            6,  'Ipv6Mode',              'net.ipv6.mode',                     'Device.X_HALCYON_Network.IPv6Mode',                 NULL,  NULL,  'Off,SLAAC,DHCPv6,Static', NULL),
('NET.IPv6.Address',                    '',               6,  'Ipv6Address',           'net.ipv6.address',                  'Device.IP.Interface.1.IPv6Address.1.IPAddress',     NULL,  NULL,  NULL, '^[0-9A-Fa-f:]*$'),
('NET.IPv6.PrefixLength',               '64',             6,  'Ipv6PrefixLength',      'net.ipv6.prefix_length',            NULL,                                                1,     128,   NULL, NULL),
('NET.IPv6.Gateway',                    '',               6,  'Ipv6Gateway',           'net.ipv6.gateway',                  NULL,                                                NULL,  NULL,  NULL, '^[0-9A-Fa-f:]*$'),
('NET.VLAN.LAN.Enabled',                '0',              6,  'VlanLanEnabled',        'net.vlan.lan.enabled',              'Device.Ethernet.VLANTermination.1.Enable',          NULL,  NULL,  '0,1', NULL),
('NET.VLAN.LAN.ID',                     '1',              6,  'VlanLanId',             'net.vlan.lan.id',                   'Device.Ethernet.VLANTermination.1.VLANID',          1,     4094,  NULL, '^[0-9]{1,4}$'),
('NET.VLAN.LAN.Priority',               '5',              6,  'VlanLanPriority',       'net.vlan.lan.priority',             NULL,                                                0,     7,     NULL, NULL),
('NET.VLAN.PC.Enabled',                 '0',              6,  'VlanPcEnabled',         'net.vlan.pc.enabled',               'Device.Ethernet.VLANTermination.2.Enable',          NULL,  NULL,  '0,1', NULL),
('NET.VLAN.PC.ID',                      '1',              6,  'VlanPcId',              'net.vlan.pc.id',                    'Device.Ethernet.VLANTermination.2.VLANID',          1,     4094,  NULL, '^[0-9]{1,4}$'),
('NET.Port.LAN.Speed',                  'Auto',           6,  'PortLanSpeed',          'net.port.lan.speed',                'Device.Ethernet.Interface.1.X_HALCYON_Speed',       NULL,  NULL,  'Auto,10Full,100Full,1000Full', NULL),
('NET.Port.PC.Enabled',                 '1',              6,  'PortPcEnabled',         'net.port.pc.enabled',               'Device.Ethernet.Interface.2.Enable',                NULL,  NULL,  '0,1', NULL),
('NET.LLDP.Enabled',                    '1',              6,  'LldpEnabled',           'net.lldp.enabled',                  'Device.X_HALCYON_Network.LLDP.Enable',              NULL,  NULL,  '0,1', NULL),
('NET.LLDP.Interval',                   '30',             6,  NULL,                    'net.lldp.interval',                 NULL,                                                5,     3600,  NULL, NULL),
('NET.QoS.DSCP.SIP',                    '26',             6,  'DscpSip',               'net.qos.dscp.sip',                  'Device.Services.VoiceService.1.VoiceProfile.1.SIP.DSCPMark', 0, 63, NULL, NULL),
('NET.QoS.DSCP.RTP',                    '46',             6,  'DscpRtp',               'net.qos.dscp.rtp',                  'Device.Services.VoiceService.1.VoiceProfile.1.RTP.DSCPMark', 0, 63, NULL, NULL),
('NET.IEEE8021X.Mode',                  'Off',            6,  'Ieee8021xMode',         'net.8021x.mode',                    'Device.IEEE8021x.Supplicant.1.X_HALCYON_Mode',      NULL,  NULL,  'Off,EAP-MD5,EAP-TLS', NULL),
('NET.IEEE8021X.Identity',              '',               6,  'Ieee8021xIdentity',     'net.8021x.identity',                'Device.IEEE8021x.Supplicant.1.EAPIdentity',         NULL,  NULL,  NULL, NULL),
('NET.IEEE8021X.Password',              '',               2,  'Ieee8021xPassword',     'net.8021x.password',                'Device.IEEE8021x.Supplicant.1.X_HALCYON_Password',  NULL,  NULL,  NULL, NULL),
('NET.Proxy.Host',                      '',               6,  'ProxyHost',             'net.proxy.host',                    NULL,                                                NULL,  NULL,  NULL, '^[A-Za-z0-9.:-]*$'),
('NET.Proxy.Port',                      '8080',           6,  'ProxyPort',             'net.proxy.port',                    NULL,                                                1,     65535, NULL, NULL);

-- SIP, for all accounts.
INSERT INTO settings
(key, defaultvalues, flags, webui, provisioning, tr069, range_min, range_max, enum, regexp) VALUES
('SIP.General.LocalPort',               '5060',           6,  'SipLocalPort',          'sip.local_port',                    'Device.Services.VoiceService.1.VoiceProfile.1.SIP.UserAgentPort', 1024, 65535, NULL, NULL),
('SIP.General.RTP.PortMin',             '5004',           6,  'RtpPortMin',            'sip.rtp.port_min',                  'Device.Services.VoiceService.1.VoiceProfile.1.RTP.LocalPortMin', 1024, 65534, NULL, NULL),
('SIP.General.RTP.PortMax',             '5023',           6,  'RtpPortMax',            'sip.rtp.port_max',                  'Device.Services.VoiceService.1.VoiceProfile.1.RTP.LocalPortMax', 1025, 65535, NULL, NULL),
('SIP.General.SRTP.Mode',               'Optional',       6,  'SrtpMode',              'sip.srtp.mode',                     'Device.Services.VoiceService.1.VoiceProfile.1.RTP.SRTP.X_HALCYON_Mode', NULL, NULL, 'Off,Optional,Mandatory', NULL),
('SIP.General.DTMF.Mode',               'RFC4733',        6,  'DtmfMode',              'sip.dtmf.mode',                     'Device.Services.VoiceService.1.VoiceProfile.1.DTMFMethod', NULL, NULL, 'RFC4733,InBand,SIPInfo', NULL),
('SIP.General.SessionTimer',            '1800',           6,  'SipSessionTimer',       'sip.session_timer',                 NULL,                                                90,    NULL,  NULL, NULL),
('SIP.General.DefaultAccount',          '1',              14, 'SipDefaultAccount',     'sip.default_account',               NULL,                                                1,     4,     NULL, NULL),
('SIP.General.EmergencyNumbers',        '112,999',        22, 'EmergencyNumbers',      'sip.emergency_numbers',             'Device.X_HALCYON_SIP.EmergencyNumbers',             NULL,  NULL,  NULL, '^[0-9]+(,[0-9]+)*$');

-- SIP, for each account: "#" is its number, 1 to 4.
WITH
account(number) AS (VALUES (1), (2), (3), (4)),
setting(key, defaultvalues, flags, webui, provisioning, tr069, range_min, range_max, enum, regexp) AS (VALUES
('SIP.Account#.Enabled',                '0',              14, 'Sip#Enabled',           'sip.#.enabled',                     'Device.Services.VoiceService.1.VoiceProfile.1.Line.#.Enable', NULL, NULL, '0,1', NULL),
('SIP.Account#.DisplayName',            '',               14, 'Sip#DisplayName',       'sip.#.display_name',                'Device.Services.VoiceService.1.VoiceProfile.1.Line.#.CallingFeatures.CallerIDName', NULL, NULL, NULL, NULL),
('SIP.Account#.UserName',               '',               14, 'Sip#UserName',          'sip.#.user_name',                   'Device.Services.VoiceService.1.VoiceProfile.1.Line.#.DirectoryNumber', NULL, NULL, NULL, '^[^ @]*$'),
('SIP.Account#.AuthName',               '',               6,  'Sip#AuthName',          'sip.#.auth_name',                   'Device.Services.VoiceService.1.VoiceProfile.1.Line.#.SIP.AuthUserName', NULL, NULL, NULL, NULL),
('SIP.Account#.AuthPassword',           '',               2,  'Sip#AuthPassword',      'sip.#.auth_password',               'Device.Services.VoiceService.1.VoiceProfile.1.Line.#.SIP.AuthPassword', NULL, NULL, NULL, NULL),
('SIP.Account#.Registrar.Server',       '',               14, 'Sip#RegistrarServer',   'sip.#.registrar.server',            'Device.Services.VoiceService.1.VoiceProfile.1.Line.#.SIP.X_HALCYON_Registrar', NULL, NULL, NULL, '^[A-Za-z0-9.:-]*$'),
('SIP.Account#.Registrar.Port',         '5060',           14, 'Sip#RegistrarPort',     'sip.#.registrar.port',              NULL,                                                0,     65535, NULL, NULL),
('SIP.Account#.Registrar.Expires',      '3600',           6,  'Sip#RegistrarExpires',  'sip.#.registrar.expires',           NULL,                                                60,    NULL,  NULL, NULL),
('SIP.Account#.OutboundProxy.Mode',     'Auto',           6,  'Sip#ProxyMode',         'sip.#.proxy.mode',                  NULL,                                                NULL,  NULL,  'Never,Auto,Always', NULL),
('SIP.Account#.OutboundProxy.Server',   '',               6,  'Sip#ProxyServer',       'sip.#.proxy.server',                NULL,                                                NULL,  NULL,  NULL, '^[A-Za-z0-9.:-]*$'),
('SIP.Account#.OutboundProxy.Port',     '5060',           6,  'Sip#ProxyPort',         'sip.#.proxy.port',                  NULL,                                                0,     65535, NULL, NULL),
('SIP.Account#.Transport',              'UDP',            6,  'Sip#Transport',         'sip.#.transport',                   NULL,                                                NULL,  NULL,  'UDP,TCP,TLS', NULL),
('SIP.Account#.Codecs',                 'G722,PCMA,PCMU', 6,  'Sip#Codecs',            'sip.#.codecs',                      NULL,                                                NULL,  NULL,  NULL, '^(OPUS|G722|PCMA|PCMU|G729)(,(OPUS|G722|PCMA|PCMU|G729))*$'),
('SIP.Account#.VoiceMail.Number',       '',               14, 'Sip#VoiceMailNumber',   'sip.#.voice_mail.number',           'Device.Services.VoiceService.1.VoiceProfile.1.Line.#.X_HALCYON_VoiceMail', NULL, NULL, NULL, '^[0-9*#+]*$'),
('SIP.Account#.RingTone',               '1',              14, 'Sip#RingTone',          'sip.#.ring_tone',                   NULL,                                                1,     12,    NULL, NULL),
('SIP.Account#.CallForward.Mode',       'Off',            14, 'Sip#ForwardMode',       'sip.#.forward.mode',                NULL,                                                NULL,  NULL,  'Off,Always,Busy,NoAnswer', NULL),
('SIP.Account#.CallForward.Target',     '',               14, 'Sip#ForwardTarget',     'sip.#.forward.target',              'Device.Services.VoiceService.1.VoiceProfile.1.Line.#.CallingFeatures.CallForwardUnconditionalNumber', NULL, NULL, NULL, '^[0-9*#+]*$'),
('SIP.Account#.CallWaiting',            '1',              14, 'Sip#CallWaiting',       'sip.#.call_waiting',                'Device.Services.VoiceService.1.VoiceProfile.1.Line.#.CallingFeatures.CallWaitingEnable', NULL, NULL, '0,1', NULL))
INSERT INTO settings
(key, defaultvalues, flags, webui, provisioning, tr069, range_min, range_max, enum, regexp)
SELECT replace(key, '#', number), defaultvalues, flags, replace(webui, '#', number), replace(provisioning, '#', number),
       replace(tr069, '#', number), range_min, range_max, enum, regexp
FROM account, setting;

-- Audio.
INSERT INTO settings
(key, defaultvalues, flags, webui, provisioning, tr069, range_min, range_max, enum, regexp) VALUES
('Audio.Volume',                        '5',              14, 'AudioVolume',           'audio.volume',                      'Device.X_HALCYON_Audio.Volume',                     0,     10,    NULL, NULL),
('Audio.Ringer.Volume',                 '6',              14, 'RingerVolume',          'audio.ringer.volume',               'Device.X_HALCYON_Audio.Ringer.Volume',              0,     10,    NULL, NULL),
('Audio.Ringer.Tone',                   '1',              14, 'RingerTone',            'audio.ringer.tone',                 'Device.X_HALCYON_Audio.Ringer.Tone',                1,     12,    NULL, NULL),
('Audio.Ringer.Device',                 'Speaker',        14, 'RingerDevice',          'audio.ringer.device',               NULL,                                                NULL,  NULL,  'Speaker,Headset,Both', NULL),
('Audio.Handset.Volume',                '5',              14, 'HandsetVolume',         'audio.handset.volume',              NULL,                                                0,     10,    NULL, NULL),
('Audio.Handset.Gain',                  '0',              6,  NULL,                    'audio.handset.gain',                NULL,                                                NULL,  12,    NULL, '^-?[0-9]{1,2}$'),
('Audio.Headset.Volume',                '5',              14, 'HeadsetVolume',         'audio.headset.volume',              NULL,                                                0,     10,    NULL, NULL),
('Audio.Headset.Type',                  'Wired',          14, 'HeadsetType',           'audio.headset.type',                NULL,                                                NULL,  NULL,  'Wired,DHSG,USB,Bluetooth', NULL),
('Audio.Speaker.Volume',                '5',              14, 'SpeakerVolume',         'audio.speaker.volume',              NULL,                                                0,     10,    NULL, NULL),
('Audio.EchoCancellation',              '1',              6,  NULL,                    'audio.echo_cancellation',           NULL,                                                NULL,  NULL,  '0,1', NULL),
('Audio.AGC.Enabled',                   '1',              6,  NULL,                    'audio.agc.enabled',                 NULL,                                                NULL,  NULL,  '0,1', NULL),
('Audio.AGC.TargetLevel',               '-18',            6,  NULL,                    'audio.agc.target_level',            NULL,                                                NULL,  0,     NULL, '^-?[0-9]{1,2}$'),
('Audio.Jitter.MinDelay',               '20',             6,  NULL,                    'audio.jitter.min_delay',            NULL,                                                0,     NULL,  NULL, NULL),
('Audio.Jitter.MaxDelay',               '200',            6,  NULL,                    'audio.jitter.max_delay',            NULL,                                                20,    NULL,  NULL, NULL),
('Audio.KeyClick',                      '1',              14, 'KeyClick',              'audio.key_click',                   NULL,                                                NULL,  NULL,  '0,1', NULL),
('Audio.Tone.Scheme',                   'GB',             14, 'ToneScheme',            'audio.tone.scheme',                 'Device.Services.VoiceService.1.VoiceProfile.1.Region', NULL, NULL, 'GB,DE,FR,IT,ES,NL,PL,PT,SE,US', NULL);

-- Web interface.
INSERT INTO settings
(key, defaultvalues, flags, webui, provisioning, tr069, range_min, range_max, enum, regexp) VALUES
('WebUI.PhoneModel',                    '1',              5,  'PhoneModel',            NULL,                                NULL,                                                NULL,  NULL,  NULL, NULL),
('WebUI.Enabled',                       '1',              6,  'WebEnabled',            'web.enabled',                       'Device.UserInterface.X_HALCYON_Web.Enable',         NULL,  NULL,  '0,1', NULL),
('WebUI.Brand',                         'Halcyon',        6,  'WebBrand',              'web.brand',                         'Device.UserInterface.BrandName',                    NULL,  NULL,  NULL, NULL),
('WebUI.HTTP.Port',                     '80',             6,  'WebHttpPort',           'web.http.port',                     NULL,                                                1,     65535, NULL, NULL),
('WebUI.HTTPS.Port',                    '443',            6,  'WebHttpsPort',          'web.https.port',                    NULL,                                                1,     65535, NULL, NULL),
('WebUI.HTTPS.Only',                    '1',              6,  'WebHttpsOnly',          'web.https.only',                    NULL,                                                NULL,  NULL,  '0,1', NULL),
('WebUI.SessionTimeout',                '600',            6,  'WebSessionTimeout',     'web.session_timeout',               NULL,                                                60,    86400, NULL, NULL),
('WebUI.Admin.Password',                '',               2,  'WebAdminPassword',      'web.admin.password',                'Device.Users.User.1.Password',                      NULL,  NULL,  NULL, NULL),
('WebUI.User.Password',                 '',               2,  'WebUserPassword',       'web.user.password',                 'Device.Users.User.2.Password',                      NULL,  NULL,  NULL, NULL),
('WebUI.Language',                      'auto',           14, 'WebLanguage',           'web.language',                      NULL,                                                NULL,  NULL,  'auto,en,de,fr,it,es,nl,pl,pt,sv', NULL);

-- Date and time.
INSERT INTO settings
(key, defaultvalues, flags, webui, provisioning, tr069, range_min, range_max, enum, regexp) VALUES
('Time.Source',                         'NTP',            14, 'TimeSource',            'time.source',                       'Device.X_HALCYON_Time.Source',                      NULL,  NULL,  'NTP,SIP,Manual', NULL),
('Time.NTP.Server1',                    'pool.ntp.org',   14, 'NtpServer1',            'time.ntp.server1',                  'Device.Time.NTPServer1',                            NULL,  NULL,  NULL, '^[A-Za-z0-9.:-]*$'),
('Time.NTP.Server2',                    '',               14, 'NtpServer2',            'time.ntp.server2',                  'Device.Time.NTPServer2',                            NULL,  NULL,  NULL, '^[A-Za-z0-9.:-]*$'),
('Time.NTP.Interval',                   '3600',           6,  NULL,                    'time.ntp.interval',                 NULL,                                                64,    NULL,  NULL, NULL),
('Time.Zone',                           'Europe/London',  14, 'TimeZone',              'time.zone',                         'Device.Time.LocalTimeZone',                         NULL,  NULL,  NULL, '^[A-Za-z]+(/[A-Za-z0-9_+-]+){0,2}$'),
('Time.DaylightSaving',                 'Auto',           14, 'DaylightSaving',        'time.daylight_saving',              NULL,                                                NULL,  NULL,  'Auto,On,Off', NULL),
('Time.Format.Hours',                   '24',             14, 'TimeFormatHours',       'time.format.hours',                 NULL,                                                NULL,  NULL,  '12,24', NULL),
('Time.Format.Date',                    'DD.MM.YYYY',     14, 'TimeFormatDate',        'time.format.date',                  NULL,                                                NULL,  NULL,  'DD.MM.YYYY,MM/DD/YYYY,YYYY-MM-DD', NULL),
('Time.LastSync',                       '',               0,  NULL,                    NULL,                                NULL,                                                NULL,  NULL,  NULL, NULL);

-- Phone book.
INSERT INTO settings
(key, defaultvalues, flags, webui, provisioning, tr069, range_min, range_max, enum, regexp) VALUES
('PhoneBook.Local.SortBy',              'LastName',       14, 'PhoneBookSortBy',       'phonebook.local.sort_by',           NULL,                                                NULL,  NULL,  'FirstName,LastName', NULL),
('PhoneBook.Local.MaxEntries',          '1000',           1,  NULL,                    NULL,                                NULL,                                                NULL,  NULL,  NULL, NULL),
('PhoneBook.LDAP.Enabled',              '0',              14, 'LdapEnabled',           'phonebook.ldap.enabled',            NULL,                                                NULL,  NULL,  '0,1', NULL),
('PhoneBook.LDAP.Server',               '',               14, 'LdapServer',            'phonebook.ldap.server',             NULL,                                                NULL,  NULL,  NULL, '^[A-Za-z0-9.:-]*$'),
('PhoneBook.LDAP.Port',                 '636',            14, 'LdapPort',              'phonebook.ldap.port',               NULL,                                                1,     65535, NULL, NULL),
('PhoneBook.LDAP.Security',             'TLS',            14, 'LdapSecurity',          'phonebook.ldap.security',           NULL,                                                NULL,  NULL,  'None,StartTLS,TLS', NULL),
('PhoneBook.LDAP.BaseDN',               '',               14, 'LdapBaseDn',            'phonebook.ldap.base_dn',            NULL,                                                NULL,  NULL,  NULL, NULL),
('PhoneBook.LDAP.UserName',             '',               6,  'LdapUserName',          'phonebook.ldap.user_name',          NULL,                                                NULL,  NULL,  NULL, NULL),
('PhoneBook.LDAP.Password',             '',               2,  'LdapPassword',          'phonebook.ldap.password',           NULL,                                                NULL,  NULL,  NULL, NULL),
('PhoneBook.LDAP.MaxResults',           '50',             14, 'LdapMaxResults',        'phonebook.ldap.max_results',        NULL,                                                1,     500,   NULL, NULL),
('PhoneBook.CallList.Length',           '100',            14, 'CallListLength',        'phonebook.call_list.length',        NULL,                                                NULL,  500,   NULL, '^[0-9]{1,3}$');

-- Display and keys.
INSERT INTO settings
(key, defaultvalues, flags, webui, provisioning, tr069, range_min, range_max, enum, regexp) VALUES
('Display.Brightness',                  '8',              14, 'DisplayBrightness',     'display.brightness',                'Device.X_HALCYON_Display.Brightness',               1,     10,    NULL, NULL),
('Display.Backlight.Timeout',           '300',            14, 'BacklightTimeout',      'display.backlight.timeout',         NULL,                                                0,     7200,  NULL, NULL),
('Display.ScreenSaver',                 'Clock',          14, 'ScreenSaver',           'display.screen_saver',              NULL,                                                NULL,  NULL,  'Off,Clock,Picture', NULL),
('Display.Theme',                       'Light',          14, 'DisplayTheme',          'display.theme',                     NULL,                                                NULL,  NULL,  'Light,Dark', NULL),
('Display.Greeting',                    '',               14, 'DisplayGreeting',       'display.greeting',                  NULL,                                                NULL,  NULL,  NULL, '^.{0,32}$'),
('Keys.Lock.Mode',                      'Off',            14, 'KeyLockMode',           'keys.lock.mode',                    NULL,                                                NULL,  NULL,  'Off,Menu,All', NULL),
('Keys.Lock.PIN',                       '0000',           2,  'KeyLockPin',            'keys.lock.pin',                     NULL,                                                NULL,  NULL,  NULL, '^[0-9]{4,8}$'),
('Keys.Lock.Timeout',                   '0',              14, 'KeyLockTimeout',        'keys.lock.timeout',                 NULL,                                                0,     3600,  NULL, NULL);

-- Function keys: "#" is the key's number, 1 to 4.
WITH
functionkey(number) AS (VALUES (1), (2), (3), (4)),
setting(key, defaultvalues, flags, webui, provisioning, tr069, range_min, range_max, enum, regexp) AS (VALUES
('Keys.Function#.Type',                 'None',           14, 'Key#Type',              'keys.#.type',                       NULL,                                                NULL,  NULL,  'None,Line,SpeedDial,BLF,URL', NULL),
('Keys.Function#.Label',                '',               10, 'Key#Label',             'keys.#.label',                      NULL,                                                NULL,  NULL,  NULL, '^.{0,16}$'),
('Keys.Function#.Value',                '',               10, 'Key#Value',             'keys.#.value',                      NULL,                                                NULL,  NULL,  NULL, NULL))
INSERT INTO settings
(key, defaultvalues, flags, webui, provisioning, tr069, range_min, range_max, enum, regexp)
SELECT replace(key, '#', number), defaultvalues, flags, replace(webui, '#', number), replace(provisioning, '#', number),
       replace(tr069, '#', number), range_min, range_max, enum, regexp
FROM functionkey, setting;

-- Provisioning and firmware updates.
INSERT INTO settings
(key, defaultvalues, flags, webui, provisioning, tr069, range_min, range_max, enum, regexp) VALUES
('Provisioning.Enabled',                '1',              22, 'ProvisioningEnabled',   'provisioning.enabled',              'Device.X_HALCYON_Provisioning.Enable',              NULL,  NULL,  '0,1', NULL),
('Provisioning.Server.URL',             '',               22, 'ProvisioningUrl',       'provisioning.server.url',           'Device.X_HALCYON_Provisioning.URL',                 NULL,  NULL,  NULL, '^((https?|tftp)://[^ ]+)?$'),
('Provisioning.Server.UserName',        '',               22, 'ProvisioningUserName',  'provisioning.server.user_name',     NULL,                                                NULL,  NULL,  NULL, NULL),
('Provisioning.Server.Password',        '',               16, 'ProvisioningPassword',  'provisioning.server.password',      NULL,                                                NULL,  NULL,  NULL, NULL),
('Provisioning.DHCP.Option66',          '1',              6,  'ProvisioningOption66',  'provisioning.dhcp.option66',        NULL,                                                NULL,  NULL,  '0,1', NULL),
('Provisioning.PollInterval',           '86400',          6,  'ProvisioningInterval',  'provisioning.poll_interval',        NULL,                                                300,   NULL,  NULL, NULL),
('Provisioning.LastResult',             '',               4,  NULL,                    NULL,                                NULL,                                                NULL,  NULL,  NULL, NULL),
('Update.Mode',                         'Ask',            14, 'UpdateMode',            'update.mode',                       'Device.X_HALCYON_Update.Mode',                      NULL,  NULL,  'Off,Ask,Automatic', NULL),
('Update.Server.URL',                   '',               6,  'UpdateUrl',             'update.server.url',                 'Device.X_HALCYON_Update.URL',                       NULL,  NULL,  NULL, '^(https?://[^ ]+)?$');

-- TR-069 client.
INSERT INTO settings
(key, defaultvalues, flags, webui, provisioning, tr069, range_min, range_max, enum, regexp) VALUES
('TR069.Enabled',                       '0',              22, 'Tr069Enabled',          'tr069.enabled',                     'Device.ManagementServer.EnableCWMP',                NULL,  NULL,  '0,1', NULL),
('TR069.ACS.URL',                       '',               22, 'Tr069AcsUrl',           'tr069.acs.url',                     'Device.ManagementServer.URL',                       NULL,  NULL,  NULL, '^(https?://[^ ]+)?$'),
('TR069.ACS.UserName',                  '',               22, 'Tr069AcsUserName',      'tr069.acs.user_name',               'Device.ManagementServer.Username',                  NULL,  NULL,  NULL, NULL),
('TR069.ACS.Password',                  '',               16, 'Tr069AcsPassword',      'tr069.acs.password',                'Device.ManagementServer.Password',                  NULL,  NULL,  NULL, NULL),
('TR069.Periodic.Enabled',              '1',              6,  'Tr069Periodic',         'tr069.periodic.enabled',            'Device.ManagementServer.PeriodicInformEnable',      NULL,  NULL,  '0,1', NULL),
('TR069.Periodic.Interval',             '86400',          6,  'Tr069Interval',         'tr069.periodic.interval',           'Device.ManagementServer.PeriodicInformInterval',    60,    NULL,  NULL, NULL),
('TR069.ConnectionRequest.UserName',    '',               6,  'Tr069RequestUserName',  'tr069.request.user_name',           'Device.ManagementServer.ConnectionRequestUsername', NULL,  NULL,  NULL, NULL),
('TR069.ConnectionRequest.Password',    '',               2,  'Tr069RequestPassword',  'tr069.request.password',            'Device.ManagementServer.ConnectionRequestPassword', NULL,  NULL,  NULL, NULL);

UPDATE settings SET value = defaultvalues;

COMMIT;
