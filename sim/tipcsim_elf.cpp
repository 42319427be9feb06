// What a program is, before it is started: the simulator's library has to be loaded into it, and it has to call the C
// library for its sockets.
#include "tipcsim.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <string_view>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

constexpr int MAX_SCRIPTS = 5; // that interpret one another, as for the kernel

typedef struct program_s {
    std::string path;
    bool elf = false;
    unsigned char kind[2] = {}; // class and byte order
    uint16_t machine = 0;
    std::string interpreter;
    bool go = false;
} program_t;

static std::string base_name(const std::string &path)
{
    return path.substr(path.rfind('/') + 1);
}

static bool is_program(const std::string &path)
{
    struct stat status;
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && access(path.c_str(), X_OK) == 0;
}

// Where execvp finds a program; "" when it does not.
static std::string in_path(const std::string &name)
{
    if (name.find('/') != std::string::npos)
        return is_program(name) ? name : "";
    const char *path = getenv("PATH");
    std::stringstream folders(path != nullptr ? path : "/bin:/usr/bin");
    for (std::string folder; std::getline(folders, folder, ':');) {
        std::string whole = (folder.empty() ? "." : folder) + "/" + name;
        if (is_program(whole))
            return whole;
    }
    return "";
}

// The program that runs a script: of "#!/usr/bin/env NAME" the one of that name. "" when `text` begins no script.
static std::string script_program(const std::string &text)
{
    if (text.compare(0, 2, "#!") != 0)
        return "";
    std::stringstream words(text.substr(2, text.find('\n') - 2));
    std::string word;
    words >> word;
    if (base_name(word) != "env")
        return word;
    while (words >> word) {
        if (word[0] != '-' && word.find('=') == std::string::npos)
            return in_path(word);
    }
    return "";
}

static bool has_range(std::string_view bytes, uint64_t offset, uint64_t size)
{
    return offset <= bytes.size() && size <= bytes.size() - offset;
}

template <typename record_t>
static bool take(std::string_view bytes, uint64_t offset, record_t *record)
{
    if (!has_range(bytes, offset, sizeof(record_t)))
        return false;
    (void)memcpy(record, bytes.data() + offset, sizeof(record_t));
    return true;
}

// A file of this machine's byte order; of another one only the header is looked at.
template <typename header_t, typename segment_t, typename section_t>
static void read_tables(std::string_view bytes, program_t *program)
{
    header_t header;
    if (!take(bytes, 0, &header))
        return;
    segment_t segment;
    for (unsigned i = 0; i < header.e_phnum; i++) {
        if (take(bytes, header.e_phoff + (uint64_t)i * header.e_phentsize, &segment) && segment.p_type == PT_INTERP &&
            segment.p_filesz > 0 && has_range(bytes, segment.p_offset, segment.p_filesz))
            program->interpreter = bytes.substr(segment.p_offset, segment.p_filesz - 1);
    }
    section_t names;
    if (!take(bytes, header.e_shoff + (uint64_t)header.e_shstrndx * header.e_shentsize, &names))
        return;
    if (!has_range(bytes, names.sh_offset, names.sh_size))
        return;
    std::string_view all = bytes.substr(names.sh_offset, names.sh_size);
    section_t section;
    for (unsigned i = 0; i < header.e_shnum; i++) {
        if (!take(bytes, header.e_shoff + (uint64_t)i * header.e_shentsize, &section) || section.sh_name >= all.size())
            continue;
        std::string_view rest = all.substr(section.sh_name);
        std::string_view name = rest.substr(0, rest.find('\0'));
        program->go = program->go || name == ".go.buildinfo" || name == ".note.go.buildid";
    }
}

static void look_at_bytes(std::string_view bytes, program_t *program)
{
    Elf32_Ehdr header; // both classes begin alike
    program->elf = bytes.substr(0, SELFMAG) == ELFMAG && take(bytes, 0, &header);
    if (!program->elf)
        return;
    (void)memcpy(program->kind, header.e_ident + EI_CLASS, sizeof(program->kind));
    program->machine = header.e_machine;
    if (program->kind[1] != (__BYTE_ORDER == __LITTLE_ENDIAN ? ELFDATA2LSB : ELFDATA2MSB))
        return;
    if (program->kind[0] == ELFCLASS64)
        read_tables<Elf64_Ehdr, Elf64_Phdr, Elf64_Shdr>(bytes, program);
    else
        read_tables<Elf32_Ehdr, Elf32_Phdr, Elf32_Shdr>(bytes, program);
}

// A program that cannot be read, but started, is no ELF file here.
static program_t look_at(const std::string &path)
{
    program_t program;
    program.path = path;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status;
    if (fd < 0)
        return program;
    if (fstat(fd, &status) == 0 && status.st_size > 0) {
        void *bytes = mmap(nullptr, (size_t)status.st_size, PROT_READ, MAP_PRIVATE, fd, 0);
        if (bytes != MAP_FAILED) {
            look_at_bytes(std::string_view((const char *)bytes, (size_t)status.st_size), &program);
            (void)munmap(bytes, (size_t)status.st_size);
        }
    }
    (void)close(fd);
    return program;
}

// The program that the kernel starts for a command, by way of scripts.
static program_t started(const std::string &command)
{
    std::string path = in_path(command);
    for (int i = 0; i < MAX_SCRIPTS && !path.empty(); i++) {
        char text[256] = "";
        std::ifstream in(path, std::ios::binary);
        (void)in.read(text, sizeof(text) - 1);
        std::string next = script_program(text);
        if (next.empty())
            break;
        path = next;
    }
    return path.empty() ? program_t() : look_at(path);
}

// Whether the process has other rights than its user: then the loader leaves LD_PRELOAD out.
static bool gets_rights(const std::string &path)
{
    struct stat status;
    struct statvfs system;
    if (stat(path.c_str(), &status) != 0 || prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) == 1)
        return false;
    if (statvfs(path.c_str(), &system) == 0 && (system.f_flag & ST_NOSUID) != 0)
        return false;
    if ((status.st_mode & S_ISUID) != 0 && status.st_uid != getuid())
        return true;
    if ((status.st_mode & S_ISGID) != 0 && (status.st_mode & S_IXGRP) != 0 && status.st_gid != getgid())
        return true;
    return getuid() != 0 && getxattr(path.c_str(), "security.capability", nullptr, 0) > 0;
}

static bool is_loader(const std::string &path)
{
    std::string name = base_name(path);
    return name.compare(0, 3, "ld-") == 0 || name.compare(0, 3, "ld.") == 0 || name.compare(0, 4, "ld64") == 0;
}

// Why the simulator's library cannot be loaded into the program; "" when it can.
static std::string obstacle(const program_t &program)
{
    program_t library = look_at(preload_library());
    if (program.machine != library.machine || memcmp(program.kind, library.kind, sizeof(library.kind)) != 0)
        return "is of another architecture than the simulator's library";
    if (gets_rights(program.path))
        return "runs with other rights than yours (setuid, setgid or capabilities), so the loader preloads nothing";
    if (program.interpreter.empty() && !is_loader(program.path))
        return program.go ? "is a Go program that is linked statically, so no library can be preloaded"
                          : "is linked statically, so no library can be preloaded";
    std::string own = look_at(self()).interpreter;
    if (!program.interpreter.empty() && base_name(program.interpreter) != base_name(own))
        return "uses another C library (" + base_name(program.interpreter) + ") than the simulator's";
    return "";
}

static bool ignores_environment(char **command)
{
    std::string name = base_name(command[0]);
    if (name == "sudo" || name == "su" || name == "doas" || name == "runuser" || name == "pkexec")
        return true;
    if (name != "env")
        return false;
    for (char **word = command + 1; *word != nullptr && (*word)[0] == '-'; word++) {
        std::string option = *word;
        bool letters = option.size() > 1 && option[1] != '-';
        if (option == "-" || option == "--ignore-environment" ||
            (letters && option.find('i') < option.find_first_of("uCS")))
            return true;
        if (option == "-u" || option == "-C" || option == "--unset" || option == "--chdir")
            word += word[1] != nullptr ? 1 : 0;
    }
    return false;
}

void check_program(const options_t &options)
{
    program_t program = started(options.command[0]);
    std::string why = program.elf ? obstacle(program) : "";
    if (!why.empty()) {
        fprintf(stderr, "tipcsim: %s %s%s\n", program.path.c_str(), why.c_str(),
                options.force ? "" : " (--force runs it nevertheless)");
        if (!options.force)
            exit(126);
    } else if (program.elf && program.go) {
        fprintf(stderr, "tipcsim: %s is a Go program: what it does by system calls of its own is not simulated\n",
                program.path.c_str());
    }
    if (ignores_environment(options.command))
        fprintf(stderr, "tipcsim: %s may clear the environment; then what it starts is on no node\n",
                options.command[0]);
}
