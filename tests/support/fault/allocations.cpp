// The allocations inside libnl and libmnl: their tables of imported functions are turned to this layer.
#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "support/fault/plan.h"

namespace corvo::test::fault {

namespace {

bool refused(const char* name) {
    return strikes(Kind::kAllocation, name);
}
void* failing_malloc(std::size_t size) {
    return refused("malloc") ? nullptr : std::malloc(size);
}
void* failing_calloc(std::size_t count, std::size_t size) {
    return refused("calloc of libnl") ? nullptr : std::calloc(count, size);
}
void* failing_realloc(void* old, std::size_t size) {
    return refused("realloc") ? nullptr : std::realloc(old, size);
}
char* failing_strdup(const char* text) {
    return refused("strdup") ? nullptr : ::strdup(text);
}

void* replacement(std::string_view name) {
    if (name == "malloc") return reinterpret_cast<void*>(&failing_malloc);
    if (name == "calloc") return reinterpret_cast<void*>(&failing_calloc);
    if (name == "realloc") return reinterpret_cast<void*>(&failing_realloc);
    if (name == "strdup") return reinterpret_cast<void*>(&failing_strdup);
    return nullptr;
}

void turn(ElfW(Addr) slot, void* function) {
    const auto page = static_cast<ElfW(Addr)>(::sysconf(_SC_PAGESIZE));
    auto* const begin = reinterpret_cast<void*>(slot & ~(page - 1));
    if (::mprotect(begin, page, PROT_READ | PROT_WRITE) == 0) *reinterpret_cast<void**>(slot) = function;
}

int visit(dl_phdr_info* info, std::size_t, void*) {
    const std::string_view name = info->dlpi_name;
    if (name.find("libnl-") == std::string_view::npos && name.find("libmnl.") == std::string_view::npos)
        return 0;
    const ElfW(Rela)* relocations = nullptr;
    std::size_t bytes = 0;
    const ElfW(Sym)* symbols = nullptr;
    const char* texts = nullptr;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        if (info->dlpi_phdr[i].p_type != PT_DYNAMIC) continue;
        for (auto* entry = reinterpret_cast<ElfW(Dyn)*>(info->dlpi_addr + info->dlpi_phdr[i].p_vaddr);
             entry->d_tag != DT_NULL; ++entry) {
            if (entry->d_tag == DT_JMPREL)
                relocations = reinterpret_cast<const ElfW(Rela)*>(entry->d_un.d_ptr);
            if (entry->d_tag == DT_PLTRELSZ) bytes = entry->d_un.d_val;
            if (entry->d_tag == DT_SYMTAB) symbols = reinterpret_cast<const ElfW(Sym)*>(entry->d_un.d_ptr);
            if (entry->d_tag == DT_STRTAB) texts = reinterpret_cast<const char*>(entry->d_un.d_ptr);
        }
    }
    if (relocations == nullptr || symbols == nullptr || texts == nullptr) return 0;
    for (std::size_t i = 0; i < bytes / sizeof(ElfW(Rela)); ++i) {
        const auto& symbol = symbols[ELF64_R_SYM(relocations[i].r_info)];
        if (void* function = replacement(texts + symbol.st_name))
            turn(info->dlpi_addr + relocations[i].r_offset, function);
    }
    return 0;
}

}  // namespace

void interpose_allocations() {
    static const int once = ::dl_iterate_phdr(visit, nullptr);
    static_cast<void>(once);
}

}  // namespace corvo::test::fault
