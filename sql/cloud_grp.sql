-- Appliance groups defined in the web front end. An appliance reports its
-- group by name; the daemon looks the name up here to learn the group id
-- (it only reads this table). grpid 10000 means "no group" and 0 is the
-- default group, so front-end groups are numbered from 1 upward.
create table if not exists vtlog.cloud_grp (
    grpid   int not null auto_increment,
    grpname varchar(32) not null default '',
    primary key (grpid),
    key grpname (grpname)
) engine=MyISAM default charset=latin1;
