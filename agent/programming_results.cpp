#include "programming_results.h"

#include <cstring>

#include "bios_messages.h"
#include "bios_opcodes.h"
#include "daemon_node.h"
#include "pfm.h"

namespace
{

constexpr std::size_t SECONDS_TEXT_BYTES = 19; // "2026-01-31T23:59:59"

} // namespace

void take_result(results_by_module &results, const kept_notice &notice)
{
    bios_programming_notify_t told{};
    if (notice.opcode != MTS_OPC_BIOS_PROGRAMMING_NOTIFY || notice.source.sap != BIOS_DAEMON_SAP ||
        notice.payload.size() < sizeof told)
        return;
    std::memcpy(&told, notice.payload.data(), sizeof told);
    const unsigned module = told.programming_mod_num.load();
    if (module == 0 || module > PFM_MODULE_COUNT)
        return;
    agent_result_t &result = results[module];
    result = {be32::of(module), be32::of(told.result.load()), be32::of(module_of_node(notice.source.node)), {}};
    const std::string time = notice.time.substr(0, SECONDS_TEXT_BYTES) + "Z";
    store_text(result.time, time.c_str(), time.size());
}

answer results_answer()
{
    static kept_notice_reader notices;
    static results_by_module results;
    for (const kept_notice &notice : notices.take())
        take_result(results, notice);
    answer all;
    for (const auto &[module, result] : results)
        all.add(result);
    return all;
}
