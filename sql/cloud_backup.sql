-- Configuration backup schedule and state, one row per gateway appliance.
-- The front end sets the schedule (backup_type, backup_seg); the daemon
-- orders the backups, records their outcome and adds rows for new appliances
-- when automatic backup is enabled.
--   backup_type      0 one-off, 1 periodic, 2 disabled
--   backup_seg       period in days
--   complete         0 backup pending start, 1 ordered or ended
--   errors           "wait", "ok", "fail", "timeout" or the appliance's
--                    failure text (GBK bytes; hence latin1 storage)
--   backup_time      UNIX time of the last order or result
--   backup_nexttime  UNIX time the next periodic backup is due
--   backup_ctime     time stamp the appliance reported for its last backup
--   fnum             number of successful backups
-- cname holds a display name of any encoding as bytes; the daemon may write
-- a converted name up to 1 KiB long.
create table if not exists vtlog.cloud_backup (
    license_id12    varchar(16) not null default '',
    cname           varchar(1024) not null default '',
    grpid           int not null default 0,
    backup_type     int not null default 0,
    backup_seg      int not null default 1,
    complete        int not null default 0,
    errors          varchar(128) not null default '',
    backup_time     bigint not null default 0,
    backup_nexttime bigint not null default 0,
    backup_ctime    bigint not null default 0,
    fnum            int not null default 0,
    key license_id12 (license_id12)
) engine=MyISAM default charset=latin1;
