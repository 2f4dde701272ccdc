// The Debug Agent's command families. Every handler reads dagt_cmd, reports
// in the result record and returns the record's code.
#pragma once

#include <cstdint>

#include "agent/dagt.h"

// Top-level handlers (rows of dagt_cmd_table); null result: 11 at once.
uint32_t dagt_cmd_info_h(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_cmd_sink_h(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_cmd_etm_h(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_cmd_stm_h(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_cmd_hwe_h(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_cmd_cti_h(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_cmd_swt_h(dagt_cmd_t *cmd, dagt_result *result);

// info
uint32_t dagt_info_chk(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_info_chk_chipid(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_info_get_version(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_info_get_chipid(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_info_get_hlos(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_info_get_sinks(dagt_cmd_t *cmd, dagt_result *result);

// stm
uint32_t dagt_stm_get(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_stm_set(dagt_cmd_t *cmd, dagt_result *result);

// hwe
uint32_t dagt_hwe_get(dagt_cmd_t *cmd, dagt_result *result);
uint32_t _dagt_hwe_enabledisable(dagt_cmd_t *cmd, dagt_result *result, int enable);
uint32_t dagt_hwe_set_reg(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_hwe_apps_set_reg(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_hwe_mdm_set_reg(dagt_cmd_t *cmd, dagt_result *result);

// etm: the number of CPUs that carry an ETM (0 when the board has none, -1
// when the kernel cannot tell).
int32_t dagt_get_cpu_count();

// A handler row chosen by token count and words: subsystem at position 1,
// attribute (or name) at position 3. A table ends with an empty subsystem
// word or a negative count.
struct etm_param_row {
    const char *subsys;
    const char *attr;
    int32_t count;
    dagt_handler handler;
};

// Picks the best-scoring row of an etm table and runs it.
int etm_parse_param(dagt_cmd_t *cmd, dagt_result *result, const etm_param_row *table);
uint32_t dagt_etm_get(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_etm_enable(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_etm_disable(dagt_cmd_t *cmd, dagt_result *result);
uint32_t etm_apps_enable_attribute_etmx(dagt_cmd_t *cmd, dagt_result *result);
uint32_t etm_apps_disable_attribute_etmx(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_etm_apps_enable_etmx(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_etm_apps_disable_etmx(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_etm_apps_get_etmx_state(dagt_cmd_t *cmd, dagt_result *result);
uint32_t etm_enable_remote_trace(dagt_cmd_t *cmd, dagt_result *result);
uint32_t etm_disable_remote_trace(dagt_cmd_t *cmd, dagt_result *result);
// Switches apps ETM index with the hot-plug service held off.
uint32_t _dagt_etmx_enabledisable(dagt_result *result, uint32_t index, int enable);
uint32_t _dagt_remote_etm_trace_config(dagt_result *result, const char *subsys, int enable);
// Brings a CPU online unless it already is; 0 or the failing status.
int dagt_cpu_set_online(dagt_result *result, int cpu);

// swt: the first row matching token count, subsystem and name word runs.
int swt_parse_param(dagt_cmd_t *cmd, dagt_result *result, const etm_param_row *table);

// sink: out modes 1 (none) to 6 (mictor b); returns the shell status.
int dagt_set_outmode(int mode);

// cti: echoes "trigger  channel" into the (un)map file of a named block.
int __dagt_cti_do_mapunmap(dagt_result *result, const char *name, uint32_t direction, uint32_t map,
                           int trigger, int channel);
