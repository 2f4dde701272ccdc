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
