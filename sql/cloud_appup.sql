-- Application-package upgrades ordered from the front end, one row per
-- gateway appliance. The daemon hands the package (upgrade_bag, a file on its
-- web server) to the appliance and tracks the outcome.
--   complete      0 waiting to start, 1 running, 2 succeeded, 3 failed
--   errors        state text: "wait", a GBK progress text, or the
--                 appliance's report (stored as bytes; hence latin1)
--   last_version  version the appliance reported after a successful upgrade
create table if not exists vtlog.cloud_appup (
    license_id12 varchar(16) not null default '',
    upgrade_bag  varchar(64) not null default '',
    complete     int not null default 0,
    errors       varchar(128) not null default '',
    last_version varchar(128) not null default '',
    key license_id12 (license_id12)
) engine=MyISAM default charset=latin1;
