// The opcode table: built once from the families' bit-pattern registrations,
// in a fixed order (a later registration would replace an earlier one), and
// checked while it is built.
#include <cstdlib>
#include <unordered_map>
#include <vector>

#include "cpu/ops.h"

OpHandler op_table[65536];

namespace {

std::vector<std::string> names;  // names[0] is op_illegal
std::unordered_map<std::string, uint16_t> name_ids;
uint16_t slot_name[65536];
OpTableStats stats;

uint16_t name_index(const std::string& name) {
    auto [it, added] = name_ids.try_emplace(name, uint16_t(names.size()));
    if (added) names.push_back(name);
    return it->second;
}

// Enter the handler in every slot whose bits match the picture. Letters
// given a value in `fields` are fixed to it; the rest range freely.
void bind_fields(const char* picture, const Field* fields, size_t nfields, OpHandler handler,
                 const std::string& name) {
    char bits[16];
    int n = 0;
    for (const char* p = picture; *p; p++)
        if (*p != ' ' && n < 16) bits[n++] = *p;
    if (n != 16) std::abort();  // a malformed picture is a bug in the table itself

    uint16_t fixed_mask = 0, fixed_bits = 0;
    for (int i = 0; i < 16; i++) {
        uint16_t bit = uint16_t(0x8000 >> i);
        char c = bits[i];
        if (c == '0' || c == '1') {
            fixed_mask |= bit;
            if (c == '1') fixed_bits |= bit;
            continue;
        }
        for (size_t k = 0; k < nfields; k++) {
            if (fields[k].letter != c || fields[k].value == ANY) continue;
            int below = 0;  // later characters of the same field
            for (int j = i + 1; j < 16; j++) below += bits[j] == c;
            fixed_mask |= bit;
            if ((fields[k].value >> below) & 1) fixed_bits |= bit;
        }
    }

    uint16_t id = name_index(name);
    uint16_t free_bits = uint16_t(~fixed_mask);
    uint16_t sub = free_bits;  // every subset of the free bits, all of them first
    for (;;) {
        uint16_t op = uint16_t(fixed_bits | sub);
        if (op_table[op] != op_illegal && op_table[op] != handler) stats.overwritten_slots++;
        op_table[op] = handler;
        slot_name[op] = id;
        if (sub == 0) break;
        sub = uint16_t((sub - 1) & free_bits);
    }
}

const char* const MODE_TOKENS[MODE_COUNT] = {"dn",   "an",   "ai",   "ainc",  "adec",  "ad16",
                                             "aidx", "absw", "absl", "pcd16", "pcidx", "imm"};

}  // namespace

const char* op_mode_token(Mode m) { return MODE_TOKENS[m]; }

std::string op_handler_name(const char* operation, Size s) {
    return std::string(operation) + "_" + op_size_token(s);
}
std::string op_handler_name(const char* operation, Size s, Mode m) {
    return op_handler_name(operation, s) + "_" + op_mode_token(m);
}
std::string op_handler_name(const char* operation, Size s, Mode src, Mode dst) {
    return op_handler_name(operation, s, src) + "_" + op_mode_token(dst);
}

void op_bind(const char* picture, std::initializer_list<Field> fields, OpHandler handler,
             const std::string& name) {
    bind_fields(picture, fields.begin(), fields.size(), handler, name);
}

void op_bind_modes(const char* picture, std::initializer_list<Field> fields, unsigned modes,
                   OpHandler handler, const std::string& name) {
    for (unsigned md = 0; md < MODE_COUNT; md++) {
        if (!(modes & (1u << md))) continue;
        std::vector<Field> all(fields);
        EaFields ea = ea_fields(Mode(md));
        all.push_back(ea.mode);
        all.push_back(ea.reg);
        bind_fields(picture, all.data(), all.size(), handler, name);
    }
}

void ops_register() {
    ops_register_move_families();
    ops_register_alu_families();
    ops_register_unary_families();
}

void op_table_fill() {
    names.assign(1, "op_illegal");
    name_ids.clear();
    name_ids.emplace("op_illegal", 0);
    stats = OpTableStats{};
    for (OpHandler& h : op_table) h = op_illegal;
    for (uint16_t& n : slot_name) n = 0;

    // Everything illegal, the A and F lines, the returns, the families
    // specialised by mode, then the loops over register fields.
    op_bind("1010 xxxx xxxx xxxx", {}, op_line_a, "op_line_a");
    op_bind("1111 xxxx xxxx xxxx", {}, op_line_f, "op_line_f");
    ops_register_returns();
    ops_register();
    ops_register_bcc();
    ops_register_cmpm();
    ops_register_extended();
    ops_register_move_rest();
    ops_register_arith_rest();
    ops_register_bits_rest();
    ops_register_control_rest();

    for (OpHandler h : op_table) stats.illegal_slots += h == op_illegal;
    stats.handlers = unsigned(names.size() - 1);
}

OpTableStats op_table_stats() { return stats; }

const char* op_name(uint16_t opcode) { return names.empty() ? "" : names[slot_name[opcode]].c_str(); }
