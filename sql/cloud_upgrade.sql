-- Firmware upgrade targets: one row per appliance and task (see cloud_task).
-- upgrade_pro names the product family of the task: "vantrel" rows are
-- gateway appliances, "frelbox" rows cache appliances.
--   upgrade_type   kind of upgrade chosen in the front end (not used by the
--                  daemon)
--   upgrade_start  UNIX time from which the upgrade may run; gateway
--                  upgrades are given up two hours after it
--   upgrade_bag    package file on the daemon's web server
--   complete       0 waiting, 1 started or order sent, 2 succeeded,
--                  3 failed or given up
--   errors         state text: a GBK text of the daemon, the appliance's
--                  report, or "ERR_NO_RESPONSE" (bytes; hence latin1)
--   upgrade_end    UNIX time of success
--   last_version   version the appliance runs after the upgrade
-- task_id is nullable on purpose: the scheduler skips rows without a task.
create table if not exists vtlog.cloud_upgrade (
    task_id       int default null,
    license_id12  varchar(16) not null default '',
    upgrade_pro   varchar(32) not null default '',
    upgrade_type  int not null default 0,
    upgrade_start bigint not null default 0,
    upgrade_bag   varchar(64) not null default '',
    complete      int not null default 0,
    errors        varchar(128) not null default '',
    upgrade_end   bigint not null default 0,
    last_version  varchar(128) not null default '',
    key task_license (task_id, license_id12),
    key pro_complete (upgrade_pro, complete)
) engine=MyISAM default charset=latin1;
