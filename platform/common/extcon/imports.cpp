// SPDX-License-Identifier: MIT
#include "extcon/imports.h"

#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>

namespace extcon
{
namespace
{

using Address = ElfW(Addr);

/// A program or library as the loader has mapped it.
struct Object {
    Address base = 0;
    const ElfW(Phdr) * headers = nullptr;
    int header_count = 0;
};

struct Search {
    Address wanted; ///< 0: the main program
    Object found;
};

bool contains(const dl_phdr_info& object, Address address)
{
    for (int i = 0; i < object.dlpi_phnum; i++) {
        const ElfW(Phdr)& header = object.dlpi_phdr[i];
        const Address begin = object.dlpi_addr + header.p_vaddr;
        if (header.p_type == PT_LOAD && address >= begin && address - begin < header.p_memsz)
            return true;
    }
    return false;
}

// The loader names the main program first.
int look_at(dl_phdr_info* object, size_t, void* argument)
{
    auto* search = static_cast<Search*>(argument);
    if (search->wanted != 0 && !contains(*object, search->wanted))
        return 0;
    search->found = {object->dlpi_addr, object->dlpi_phdr, object->dlpi_phnum};
    return 1;
}

const ElfW(Phdr) * header_of(const Object& object, unsigned type)
{
    for (int i = 0; i < object.header_count; i++)
        if (object.headers[i].p_type == type)
            return &object.headers[i];
    return nullptr;
}

/// What the dynamic section says of the object's imports.
struct Imports {
    const ElfW(Sym) * symbols = nullptr;
    const char* names = nullptr;
    struct Table {
        Address begin = 0;
        size_t bytes = 0;
        bool addends = false; ///< entries are Rela, not Rel
    } calls, rela, rel;
};

Imports imports_of(const Object& object)
{
    Imports imports;
    const ElfW(Phdr)* header = header_of(object, PT_DYNAMIC);
    if (header == nullptr)
        return imports;
    // Some C libraries and architectures leave the addresses as they are in the file.
    const auto mapped = [&object](Address address) { return address < object.base ? object.base + address : address; };
    imports.rela.addends = true;
    for (auto* entry = reinterpret_cast<const ElfW(Dyn)*>(object.base + header->p_vaddr); entry->d_tag != DT_NULL;
         entry++) {
        switch (entry->d_tag) {
        case DT_SYMTAB: imports.symbols = reinterpret_cast<const ElfW(Sym)*>(mapped(entry->d_un.d_ptr)); break;
        case DT_STRTAB: imports.names = reinterpret_cast<const char*>(mapped(entry->d_un.d_ptr)); break;
        case DT_JMPREL: imports.calls.begin = mapped(entry->d_un.d_ptr); break;
        case DT_PLTRELSZ: imports.calls.bytes = entry->d_un.d_val; break;
        case DT_PLTREL: imports.calls.addends = entry->d_un.d_val == DT_RELA; break;
        case DT_RELA: imports.rela.begin = mapped(entry->d_un.d_ptr); break;
        case DT_RELASZ: imports.rela.bytes = entry->d_un.d_val; break;
        case DT_REL: imports.rel.begin = mapped(entry->d_un.d_ptr); break;
        case DT_RELSZ: imports.rel.bytes = entry->d_un.d_val; break;
        default: break;
        }
    }
    return imports;
}

size_t symbol_of(Address info)
{
#if __ELF_NATIVE_CLASS == 64
    return ELF64_R_SYM(info);
#else
    return ELF32_R_SYM(info);
#endif
}

/// Writes one entry, which the loader may have made read-only after it had filled it in.
bool write_entry(const Object& object, Address place, const void* value)
{
    const auto page = static_cast<Address>(sysconf(_SC_PAGESIZE));
    void* const begin = reinterpret_cast<void*>(place / page * page);
    const ElfW(Phdr)* sealed = header_of(object, PT_GNU_RELRO);
    const bool read_only = sealed != nullptr && place - (object.base + sealed->p_vaddr) < sealed->p_memsz;
    if (read_only && mprotect(begin, page, PROT_READ | PROT_WRITE) != 0)
        return false;
    __atomic_store_n(reinterpret_cast<const void**>(place), value, __ATOMIC_RELEASE);
    // The last page of the sealed part also holds data that stay writable: it is not sealed.
    const Address sealed_end = sealed != nullptr ? (object.base + sealed->p_vaddr + sealed->p_memsz) / page * page : 0;
    if (read_only && place < sealed_end)
        mprotect(begin, page, PROT_READ);
    return true;
}

template <typename Entry>
int redirect_in(const Object& object, const Imports& imports, const Imports::Table& table, const char* name,
                const void* replacement)
{
    int count = 0;
    const auto* entries = reinterpret_cast<const Entry*>(table.begin);
    for (size_t i = 0; table.begin != 0 && i < table.bytes / sizeof(Entry); i++) {
        const size_t symbol = symbol_of(entries[i].r_info);
        if (symbol == 0 || strcmp(imports.names + imports.symbols[symbol].st_name, name) != 0)
            continue;
        if (!write_entry(object, object.base + entries[i].r_offset, replacement))
            return -1;
        count++;
    }
    return count;
}

} // namespace

int redirect_import(const void* address, const char* name, const void* replacement)
{
    Search search = {reinterpret_cast<Address>(address), {}};
    if (dl_iterate_phdr(look_at, &search) == 0)
        return 0;
    const Imports imports = imports_of(search.found);
    if (imports.symbols == nullptr || imports.names == nullptr)
        return 0;
    int total = 0;
    for (const Imports::Table& table : {imports.calls, imports.rela, imports.rel}) {
        const int count = table.addends ? redirect_in<ElfW(Rela)>(search.found, imports, table, name, replacement)
                                        : redirect_in<ElfW(Rel)>(search.found, imports, table, name, replacement);
        if (count < 0)
            return count;
        total += count;
    }
    return total;
}

} // namespace extcon
