#include "tracer.h"

#ifdef __x86_64__

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <elf.h>
#include <fstream>
#include <link.h>
#include <map>
#include <sstream>
#include <sys/mman.h>
#include <sys/ucontext.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace
{
constexpr size_t ARGUMENTS_MAX = 6;
constexpr size_t FIRED_MAX = 4096;
constexpr int NO_REGISTER = -1;

// Where an argument is: a constant, a register, or memory at base + index * scale + number.
struct operand_t {
    size_t size;
    bool is_signed;
    enum { CONSTANT, REGISTER, MEMORY } kind;
    int64_t number;
    int base;
    int index;
    int scale;
};

struct site_t { // one place of one probe
    std::string name;
    uintptr_t pc;
    uintptr_t semaphore; // 0: none
    std::vector<operand_t> operands;
    bool watched;
};

struct fired_t {
    const site_t *site;
    int64_t arguments[ARGUMENTS_MAX];
};

std::vector<site_t> &s_sites = *new std::vector<site_t>; // never destroyed: threads outlive main
fired_t s_fired[FIRED_MAX];
std::atomic<size_t> s_fired_num{0};

const std::map<std::string, int> &registers()
{
    static std::map<std::string, int> &s_map = *new std::map<std::string, int>;
    if (!s_map.empty())
        return s_map;
    const std::pair<const char *, int> old[] = {{"ax", REG_RAX}, {"bx", REG_RBX}, {"cx", REG_RCX}, {"dx", REG_RDX},
                                                {"si", REG_RSI}, {"di", REG_RDI}, {"bp", REG_RBP}, {"sp", REG_RSP}};
    for (auto [name, number] : old) {
        std::string word = name;
        for (const std::string &form : {word, "e" + word, "r" + word, word + "l", word.substr(0, 1) + "l"})
            s_map.emplace(form, number); // "sl" and "dl" of si and di: no such register, and dx is there first
    }
    for (int i = 8; i < 16; i++) {
        for (const char *form : {"", "d", "w", "b"})
            s_map.emplace("r" + std::to_string(i) + form, REG_R8 + i - 8);
    }
    return s_map;
}

int register_of(const std::string &name)
{
    auto found = registers().find(name.substr(name.empty() ? 0 : 1));
    EXPECT_NE(found, registers().end()) << name;
    return found == registers().end() ? REG_RAX : found->second;
}

// "-4@%eax", "4@$7", "4@8(%rsp)", "1@(%rax,%rdx,4)"
operand_t operand_of(const std::string &text)
{
    size_t at = text.find('@');
    std::string place = text.substr(at + 1);
    operand_t out = {(size_t)labs(strtol(text.c_str(), nullptr, 10)),
                     text[0] == '-',
                     operand_t::CONSTANT,
                     0,
                     NO_REGISTER,
                     NO_REGISTER,
                     1};
    if (place[0] == '$') {
        out.number = strtoll(place.c_str() + 1, nullptr, 0);
        return out;
    }
    if (place[0] == '%') {
        out.kind = operand_t::REGISTER;
        out.base = register_of(place);
        return out;
    }
    out.kind = operand_t::MEMORY;
    out.number = strtoll(place.c_str(), nullptr, 0);
    size_t open = place.find('(');
    EXPECT_NE(open, std::string::npos) << text;
    std::istringstream inside(place.substr(open + 1, place.size() - open - 2));
    std::string word;
    for (int i = 0; std::getline(inside, word, ','); i++) {
        if (i == 2)
            out.scale = atoi(word.c_str());
        else if (!word.empty())
            (i == 0 ? out.base : out.index) = register_of(word);
    }
    return out;
}

int64_t extend(int64_t value, const operand_t &operand)
{
    unsigned unused = 64 - 8 * (unsigned)operand.size;
    uint64_t bits = (uint64_t)value << unused;
    return operand.is_signed ? (int64_t)bits >> unused : (int64_t)(bits >> unused);
}

int64_t value_of(const operand_t &operand, const greg_t *regs)
{
    if (operand.kind == operand_t::CONSTANT)
        return extend(operand.number, operand);
    if (operand.kind == operand_t::REGISTER)
        return extend(regs[operand.base], operand);
    int64_t at = operand.number;
    at += operand.base == NO_REGISTER ? 0 : regs[operand.base];
    at += operand.index == NO_REGISTER ? 0 : regs[operand.index] * operand.scale;
    int64_t value = 0;
    memcpy(&value, (const void *)at, operand.size);
    return extend(value, operand);
}

// The breakpoint took the place of a nop, so the thread goes on behind it.
void on_breakpoint(int, siginfo_t *, void *context)
{
    const greg_t *regs = ((const ucontext_t *)context)->uc_mcontext.gregs;
    for (const site_t &site : s_sites) {
        if (site.pc != (uintptr_t)regs[REG_RIP] - 1)
            continue;
        size_t at = s_fired_num.fetch_add(1);
        if (at >= FIRED_MAX)
            abort();
        s_fired[at].site = &site;
        for (size_t i = 0; i < site.operands.size() && i < ARGUMENTS_MAX; i++)
            s_fired[at].arguments[i] = value_of(site.operands[i], regs);
        return;
    }
    abort();
}

uintptr_t load_bias()
{
    uintptr_t bias = 0;
    (void)dl_iterate_phdr(
        [](struct dl_phdr_info *info, size_t, void *out) {
            *(uintptr_t *)out = info->dlpi_addr;
            return 1; // the first is the program
        },
        &bias);
    return bias;
}

template <typename Record>
Record record_at(const std::string &file, size_t at)
{
    Record record;
    memcpy(&record, file.data() + at, sizeof(record));
    return record;
}

std::string section_of(const std::string &file, const char *name)
{
    Elf64_Ehdr header = record_at<Elf64_Ehdr>(file, 0);
    auto section = [&](size_t i) { return record_at<Elf64_Shdr>(file, header.e_shoff + i * sizeof(Elf64_Shdr)); };
    size_t names = section(header.e_shstrndx).sh_offset;
    for (size_t i = 0; i < header.e_shnum; i++) {
        if (strcmp(file.c_str() + names + section(i).sh_name, name) == 0)
            return file.substr(section(i).sh_offset, section(i).sh_size);
    }
    return "";
}

void read_note(const std::string &description, uintptr_t bias)
{
    std::string provider = description.c_str() + 24;
    std::string name = description.c_str() + 24 + provider.size() + 1;
    std::istringstream arguments(description.c_str() + 24 + provider.size() + 1 + name.size() + 1);
    uint64_t semaphore = record_at<uint64_t>(description, 16);
    site_t site = {name, record_at<uint64_t>(description, 0) + bias, semaphore == 0 ? 0 : semaphore + bias, {}, false};
    for (std::string text; arguments >> text;)
        site.operands.push_back(operand_of(text));
    if (provider == "zeb")
        s_sites.push_back(site);
}

void read_notes()
{
    std::ifstream program("/proc/self/exe", std::ios::binary | std::ios::ate);
    std::string file((size_t)program.tellg(), '\0');
    ASSERT_TRUE(program.seekg(0).read(file.data(), (std::streamsize)file.size()));
    std::string notes = section_of(file, ".note.stapsdt");
    for (size_t at = 0; at < notes.size();) {
        Elf64_Nhdr note = record_at<Elf64_Nhdr>(notes, at);
        size_t description = at + sizeof(note) + ((note.n_namesz + 3) & ~3u);
        read_note(notes.substr(description, note.n_descsz), load_bias());
        at = description + ((note.n_descsz + 3) & ~3u);
    }
}

void put_breakpoint(site_t *site)
{
    constexpr uint8_t NOP = 0x90;
    constexpr uint8_t BREAKPOINT = 0xCC;
    uintptr_t page = site->pc & ~((uintptr_t)sysconf(_SC_PAGESIZE) - 1);
    ASSERT_EQ(mprotect((void *)page, (size_t)sysconf(_SC_PAGESIZE), PROT_READ | PROT_WRITE | PROT_EXEC), 0);
    ASSERT_EQ(*(uint8_t *)site->pc, NOP);
    *(volatile uint8_t *)site->pc = BREAKPOINT;
    if (site->semaphore != 0)
        *(volatile uint16_t *)site->semaphore += 1;
    site->watched = true;
}
} // namespace

void tracer::watch(const std::vector<std::string> &names)
{
    if (s_sites.empty())
        read_notes();
    struct sigaction action = {};
    action.sa_sigaction = on_breakpoint;
    action.sa_flags = SA_SIGINFO;
    ASSERT_EQ(sigaction(SIGTRAP, &action, nullptr), 0);
    for (const std::string &name : names) {
        bool found = false;
        for (site_t &site : s_sites) {
            if (site.name != name)
                continue;
            found = true;
            if (!site.watched)
                put_breakpoint(&site);
        }
        EXPECT_TRUE(found) << name;
    }
}

std::vector<std::string> tracer::take()
{
    std::vector<std::string> out;
    for (size_t i = 0; i < s_fired_num; i++) {
        std::string line = s_fired[i].site->name;
        for (size_t j = 0; j < s_fired[i].site->operands.size(); j++)
            line += " " + std::to_string(s_fired[i].arguments[j]);
        out.push_back(line);
    }
    s_fired_num = 0;
    return out;
}

#endif
