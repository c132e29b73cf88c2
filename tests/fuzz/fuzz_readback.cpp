// Read-back queries: the numbers read from s4_drc_*, s4_filter_* and s4_bm_*
// lines, and the reply line built around any response. Input: the DSP reply
// script (fuzz_env.h), a byte that picks the query, then the line.
#include <cstring>
#include <memory>

#include "core/protocol.h"
#include "dsptool/tool_link.h"
#include "tests/fuzz/fuzz_env.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) { return fuzz::start(PROTO_DSPTOOL, true), 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The numbered queries see only lines whose word matched their pattern.
    constexpr std::pair<tool_text_handler, const char*> queries[] = {
        {tool_s2_info, ""},     {tool_s4_md_en, ""},    {tool_s4_output, ""}, {tool_s4_mmix_a, ""},
        {tool_s4_mmix_b, ""},   {tool_s4_mmix_c, ""},   {tool_s4_volc, ""},   {tool_s4_headroom, ""},
        {tool_s4_delay, ""},    {tool_s4_filter, ""},   {tool_s4_truvol, ""}, {tool_s4_virtualx, ""},
        {tool_s4_mcd, ""},      {tool_s4_mode, ""},     {tool_s4_audinfo, ""}, {tool_s4_prf, ""},
        {tool_s4_drc, "dsp s4_drc_"}, {tool_s4_filter_n, "dsp s4_filter_"}, {tool_s4_bm, "dsp s4_bm_"},
    };
    fuzz::bytes in = fuzz::take_replies({data, size});
    if (in.empty()) return -1;
    auto [handler, prefix] = queries[in[0] % std::size(queries)];
    // Lines of at most 3071 bytes, each in a buffer of its own length.
    size_t p = strlen(prefix), n = std::min(in.size() - 1, TOOL_BUF_SIZE - 1 - p);
    std::unique_ptr<char[]> line(new char[p + n + 1]);
    memcpy(line.get(), prefix, p);
    memcpy(line.get() + p, in.data() + 1, n);
    line[p + n] = '\0';
    handler(line.get());
    return 0;
}
