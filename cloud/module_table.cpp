// The daemon's modules in link order. Start order is by level; modules of
// equal level start in the order of this table and stop in reverse.
#include "jos.h"

extern jos_module_t cloud_module;
extern jos_module_t backup_module;
extern jos_module_t gamecloud_module;
extern jos_module_t usragp_module;
extern jos_module_t iptable_module;
extern jos_module_t urldnsgrp_module;
extern jos_module_t frelbox_module;
extern jos_module_t logserver_module;
extern jos_module_t sshport_module;
extern jos_module_t upgrade_module;
extern jos_module_t als_upgrade_module;
extern jos_module_t cmds_module;
extern jos_module_t mgmt_module;
extern jos_module_t cpu_module;
extern jos_module_t thread_module;
extern jos_module_t config_module;
extern jos_module_t delaymb_module;
extern jos_module_t dbf_module;
extern jos_module_t metrics_module;

jos_module_t* const _module_data[] = {
    &cloud_module,
    &backup_module,
    &gamecloud_module,
    &frelbox_module,
    &iptable_module,
    &urldnsgrp_module,
    &logserver_module,
    &sshport_module,
    &upgrade_module,
    &als_upgrade_module,
    &usragp_module,
    &cmds_module,
    &mgmt_module,
    &cpu_module,
    &thread_module,
    &config_module,
    &delaymb_module,
    &dbf_module,
    &metrics_module,
};

const size_t _module_count = sizeof(_module_data) / sizeof(_module_data[0]);
