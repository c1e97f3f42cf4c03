-- Firmware upgrade tasks, one row per task; the targets are the rows of
-- cloud_upgrade with the same task_id. succ and fail count success and
-- failure reports (an appliance retried three times can add three to fail).
-- upgrade_pro, upgrade_bag, upgrade_start and status drive cache-appliance
-- ("frelbox") tasks: status 0 new, 1 loaded by the daemon.
-- task_id numbers itself when the front end leaves it out; the key is not
-- unique because the daemon tolerates a task listed twice.
create table if not exists vtlog.cloud_task (
    task_id       int not null auto_increment,
    upgrade_pro   varchar(32) not null default '',
    upgrade_bag   varchar(64) not null default '',
    upgrade_start bigint not null default 0,
    status        int not null default 0,
    succ          int not null default 0,
    fail          int not null default 0,
    key task_id (task_id)
) engine=MyISAM default charset=latin1;
