#include "fibre.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <link.h>
#include <new>
#include <pthread.h>
#include <string>
#include <sys/mman.h>
#include <system_error>
#include <utility>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SCHEDULES_ADDRESS_SANITIZER
#endif
#elif defined(__SANITIZE_ADDRESS__)
#define SCHEDULES_ADDRESS_SANITIZER
#endif

#ifdef SCHEDULES_ADDRESS_SANITIZER
#include <sanitizer/common_interface_defs.h>
#include <sanitizer/lsan_interface.h>
#endif

namespace schedules
{
namespace
{

constexpr std::size_t STACK_BYTES = std::size_t{256} * 1024; // what the library gives its own threads
constexpr std::size_t GUARD_BYTES = 4096;
constexpr std::size_t MOST_STACKS_KEPT = 64;

/// The thread-local variables of one module.
struct localBlock
{
    unsigned char* live;
    std::vector<unsigned char> initial;
};

bool isSwapped(std::string const& module)
{
    return module.empty() || module.find("libgssip") != std::string::npos ||
           module.find("libstdc++") != std::string::npos;
}

int addLocals(dl_phdr_info* module, std::size_t /*size*/, void* blocks)
{
    auto const* const headers = module->dlpi_phdr;
    auto const* const found = std::find_if(headers, headers + module->dlpi_phnum,
                                           [](ElfW(Phdr) const& header) { return header.p_type == PT_TLS; });
    if (found != headers + module->dlpi_phnum && module->dlpi_tls_data != nullptr && isSwapped(module->dlpi_name))
    {
        std::vector<unsigned char> initial(found->p_memsz);
        std::memcpy(initial.data(), reinterpret_cast<void const*>(module->dlpi_addr + found->p_vaddr), found->p_filesz);
        static_cast<std::vector<localBlock>*>(blocks)->push_back(
            {static_cast<unsigned char*>(module->dlpi_tls_data), std::move(initial)});
    }
    return 0;
}

/// Those of the program, the library and the C++ runtime. The C library's stay: they belong to the real thread.
std::vector<localBlock> const& localBlocks()
{
    static std::vector<localBlock> const all = [] {
        std::vector<localBlock> blocks;
        dl_iterate_phdr(addLocals, &blocks);
        return blocks;
    }();
    return all;
}

std::vector<unsigned char> initialLocals()
{
    std::vector<unsigned char> all;
    for (localBlock const& block : localBlocks())
    {
        all.insert(all.end(), block.initial.begin(), block.initial.end());
    }
    return all;
}

void saveLocals(std::vector<unsigned char>& copy)
{
    std::size_t place = 0;
    for (localBlock const& block : localBlocks())
    {
        std::memcpy(copy.data() + place, block.live, block.initial.size());
        place += block.initial.size();
    }
}

void loadLocals(std::vector<unsigned char> const& copy)
{
    std::size_t place = 0;
    for (localBlock const& block : localBlocks())
    {
        std::memcpy(block.live, copy.data() + place, block.initial.size());
        place += block.initial.size();
    }
}

/// Makes a new fibre known to its own first instructions.
fibre* entering = nullptr;

} // namespace

/// Memory with a page behind its end that nobody may touch. Kept for the next fibre, since mapping takes time.
class fibre::stack
{
  public:
    stack() : bottom(takeOrMap()) {}
    ~stack()
    {
        if (kept().size() < MOST_STACKS_KEPT)
        {
            kept().push_back(bottom);
        }
        else
        {
            munmap(bottom, GUARD_BYTES + STACK_BYTES);
        }
    }
    stack(stack const&) = delete;
    stack& operator=(stack const&) = delete;

    unsigned char* usable() const { return bottom + GUARD_BYTES; }

  private:
    static std::vector<unsigned char*>& kept()
    {
        static std::vector<unsigned char*> all;
        return all;
    }

    static unsigned char* takeOrMap()
    {
        if (!kept().empty())
        {
            unsigned char* const taken = kept().back();
            kept().pop_back();
            return taken;
        }
        void* const mapped =
            mmap(nullptr, GUARD_BYTES + STACK_BYTES, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (mapped == MAP_FAILED || mprotect(mapped, GUARD_BYTES, PROT_NONE) != 0)
        {
            throw std::system_error(errno, std::generic_category(), "no stack");
        }
        return static_cast<unsigned char*>(mapped);
    }

    unsigned char* const bottom;
};

fibre::fibre() : threadLocals(initialLocals().size()) {}

fibre::fibre(std::function<void()> entryToRun)
    : entry(std::move(entryToRun)), memory(std::make_unique<stack>()), threadLocals(initialLocals())
{
    getcontext(&context);
    context.uc_stack.ss_sp = memory->usable();
    context.uc_stack.ss_size = STACK_BYTES;
    context.uc_link = nullptr;
    makecontext(&context, &fibre::enter, 0);
}

fibre::~fibre() = default;

void fibre::handOverTo(fibre& other)
{
    saveLocals(threadLocals);
    errorNumber = errno;
    loadLocals(other.threadLocals);
    errno = other.errorNumber;
    entering = &other;
#ifdef SCHEDULES_ADDRESS_SANITIZER
    static void const* home = nullptr; // the stack of the process's thread, as the sanitizer tells it
    static std::size_t homeBytes = 0;
    if (home == nullptr)
    {
        pthread_attr_t attributes;
        void* address = nullptr;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstack(&attributes, &address, &homeBytes);
        pthread_attr_destroy(&attributes);
        home = address;
    }
    __sanitizer_start_switch_fiber(&fakeStack, other.memory ? other.memory->usable() : home,
                                   other.memory ? STACK_BYTES : homeBytes);
#endif
    swapcontext(&context, &other.context);
    arrive();
}

void fibre::enter()
{
    fibre& self = *entering;
    self.arrive();
    self.entry();
}

void fibre::arrive()
{
#ifdef SCHEDULES_ADDRESS_SANITIZER
    __sanitizer_finish_switch_fiber(fakeStack, nullptr, nullptr);
#endif
}

void fibre::abandon()
{
#ifdef SCHEDULES_ADDRESS_SANITIZER
    if (memory)
    {
        __lsan_register_root_region(memory->usable(), STACK_BYTES);
    }
#endif
    static_cast<void>(memory.release());
}

} // namespace schedules
