// Read-back queries: the numbers of s4_drc_*, s4_filter_* and s4_bm_* read
// from the line, and the reply line built around any response text.
//
// Input: one byte n, n bytes of DSP replies ("a\nb\n..."), one byte that
// picks the query handler, then the line.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/protocol.h"
#include "dsptool/tool_link.h"
#include "tests/fuzz/fuzz_env.h"

namespace {
// The numbered queries are reached only by lines whose word matched their
// pattern, so their lines start with it here too.
struct query {
    tool_text_handler handler;
    const char* prefix;
};
constexpr query queries[] = {
    {tool_s2_info, ""},     {tool_s4_md_en, ""},   {tool_s4_output, ""},   {tool_s4_mmix_a, ""},
    {tool_s4_mmix_b, ""},   {tool_s4_mmix_c, ""},  {tool_s4_volc, ""},     {tool_s4_headroom, ""},
    {tool_s4_delay, ""},    {tool_s4_filter, ""},  {tool_s4_truvol, ""},   {tool_s4_virtualx, ""},
    {tool_s4_mcd, ""},      {tool_s4_mode, ""},    {tool_s4_audinfo, ""},  {tool_s4_prf, ""},
    {tool_s4_drc, "dsp s4_drc_"}, {tool_s4_filter_n, "dsp s4_filter_"}, {tool_s4_bm, "dsp s4_bm_"},
};
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::start_link(PROTO_DSPTOOL);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    size_t at = fuzz::take_replies(data, size);
    if (at >= size) return -1;
    const query& q = queries[data[at++] % std::size(queries)];
    size_t prefix = strlen(q.prefix);
    size_t len = size - at;
    // The handlers get lines of at most 3071 bytes, in a buffer of their own.
    if (len > TOOL_BUF_SIZE - 1 - prefix) len = TOOL_BUF_SIZE - 1 - prefix;
    std::unique_ptr<char[]> line(new char[prefix + len + 1]);
    memcpy(line.get(), q.prefix, prefix);
    memcpy(line.get() + prefix, data + at, len);
    line[prefix + len] = '\0';
    q.handler(line.get());
    return 0;
}
