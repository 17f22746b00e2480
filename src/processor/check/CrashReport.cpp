#include "processor/check/CrashReport.h"

#include "processor/check/GuardedBuffer.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/time.h>
#include <sys/ucontext.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <system_error>

namespace {

constexpr size_t javaStackSize = size_t{1} << 20, stackGuardSize = size_t{16} << 20;
constexpr size_t mostOfAPush = size_t{64} << 10;
constexpr size_t handlerStackSize = size_t{256} << 10;

struct Thread {
    std::atomic<bool> isTaken = false;
    std::atomic<const char*> operation = nullptr; // null: not inside the module
    PictureSize size;
    time_t since = 0; // seconds of the monotonic clock
    pthread_t id = 0;
    uintptr_t stackStart = 0; // its lowest address
};
Thread threads[4];
thread_local Thread* self = nullptr;
std::atomic<pthread_t> reporter = 0; // of a crash; 0: nobody

std::string moduleFile, fileToRemove;
const ModuleSymbols* moduleSymbols = nullptr;
int mostSeconds = 0;

time_t now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec;
}

// Everything below is used by the signal handler as well: it keeps off the heap, which may be damaged.

void say(const char* format, ...) __attribute__((format(printf, 1, 2)));
void say(const char* format, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    const auto size = std::min<size_t>(static_cast<size_t>(std::max(length, 0)), sizeof text - 1);
    if (write(STDOUT_FILENO, text, size) < 0) _exit(1);
}

bool liesInModule(uintptr_t address, uintptr_t& offset) {
    Dl_info library;
    if (!dladdr(reinterpret_cast<void*>(address), &library) || !library.dli_fname ||
        moduleFile != library.dli_fname)
        return false;
    offset = address - reinterpret_cast<uintptr_t>(library.dli_fbase);
    return true;
}

// The place of an instruction, or of the module's call that led to it.
void sayPlace(uintptr_t instruction) {
    uintptr_t offset = 0;
    bool found = liesInModule(instruction, offset);
    if (!found) {
        Dl_info elsewhere;
        if (dladdr(reinterpret_cast<void*>(instruction), &elsewhere) && elsewhere.dli_sname)
            say("  in %s, called\n", elsewhere.dli_sname);
        void* frames[64];
        const int count = backtrace(frames, 64);
        // A return address lies behind its call.
        for (int i = 0; i < count && !found; ++i)
            found = liesInModule(reinterpret_cast<uintptr_t>(frames[i]) - 1, offset);
    }
    if (!found) {
        say("  at address %#zx, outside of the module: is its object, or the table of that, damaged or "
            "freed?\n",
            instruction);
        return;
    }
    const ModuleSymbols::Function* function = moduleSymbols->find(offset);
    if (function)
        say("  in %s +%#zx\n", function->name.c_str(), offset - function->start);
    else
        say("  in a function of the module whose name is stripped\n");
    say("  the line, if built with -g: addr2line -Cfie '%s' %#zx\n", moduleFile.c_str(), offset);
}

[[noreturn]] void end() {
    if (!fileToRemove.empty()) unlink(fileToRemove.c_str());
    _exit(1);
}

void sayOperation() {
    const char* operation = self ? self->operation.load() : nullptr;
    if (!self)
        say("\nFAULT: on a thread that is not the caller's: ");
    else if (!operation)
        say("\nFAULT: between two calls of the module: ");
    else if (self->size.width > 0)
        say("\nFAULT: %s, pictures of %dx%d: ", operation, self->size.width, self->size.height);
    else
        say("\nFAULT: %s: ", operation);
}

void sayAccess(const siginfo_t& signal, const ucontext_t& context) {
    const auto address = reinterpret_cast<uintptr_t>(signal.si_addr);
    const auto stackPointer = static_cast<uintptr_t>(context.uc_mcontext.gregs[REG_RSP]);
    const auto instruction = static_cast<uintptr_t>(context.uc_mcontext.gregs[REG_RIP]);
    const bool isWrite = context.uc_mcontext.gregs[REG_ERR] & 2; // the processor's page-fault code
    const char* access = instruction == address ? "jumps" : isWrite ? "writes" : "reads";
    const BufferAddress buffer = findBuffer(address);
    const auto size = static_cast<ptrdiff_t>(buffer.size);
    // A push lies just below the stack pointer; a large array moves that one itself.
    if (self && (stackPointer < self->stackStart ||
                 (address < self->stackStart && address + mostOfAPush >= stackPointer)))
        say("runs out of its stack, which has %zu kB, as a Java thread's has\n", javaStackSize / 1024);
    else if (signal.si_code == SI_KERNEL)
        say("uses a pointer that is no address, or not aligned as its instruction wants\n");
    else if (buffer.name && buffer.isOver)
        say("%s byte %td of %s of an earlier call, which is gone\n", access, buffer.offset, buffer.name);
    else if (buffer.name && buffer.offset >= size)
        say("%s outside of %s: byte %td behind its end (it has %zu bytes)\n", access, buffer.name,
            buffer.offset - size + 1, buffer.size);
    else if (buffer.name && buffer.offset < 0)
        say("%s outside of %s: byte %td ahead of its start (it has %zu bytes)\n", access, buffer.name,
            -buffer.offset, buffer.size);
    else if (buffer.name)
        say("%s byte %td of %s, which is for reading only\n", access, buffer.offset, buffer.name);
    else if (address < 65536)
        say("%s through a null pointer (address %#zx)\n", access, address);
    else
        say("%s where no memory is its own (address %#zx)\n", access, address);
}

[[noreturn]] void reportSignal(int number, const siginfo_t& signal, const ucontext_t& context) {
    sayOperation();
    switch (number) {
    case SIGSEGV:
    case SIGBUS:
        sayAccess(signal, context);
        break;
    case SIGFPE:
        say("divides by zero\n");
        break;
    case SIGILL:
    case SIGTRAP:
        say("meets an instruction that this processor refuses (a trap, or not for this machine)\n");
        break;
    case SIGABRT:
        say("is ended by abort(), for the reason above if any is printed\n");
        break;
    default:
        say("does not return within %d seconds\n", mostSeconds);
        break;
    }
    auto instruction = static_cast<uintptr_t>(context.uc_mcontext.gregs[REG_RIP]);
    if (number == SIGSEGV && instruction == reinterpret_cast<uintptr_t>(signal.si_addr))
        // It jumped to nowhere: where it came from lies on top of the stack.
        instruction = *reinterpret_cast<const uintptr_t*>(context.uc_mcontext.gregs[REG_RSP]) - 1;
    sayPlace(instruction);
    if (self && !self->operation)
        say("  an earlier call has damaged memory: valgrind or AddressSanitizer tell which\n");
    end();
}

bool isTraced() {
    char status[4096] = {};
    const int file = open("/proc/self/status", O_RDONLY | O_CLOEXEC);
    if (file < 0) return false;
    const ssize_t length = read(file, status, sizeof status - 1);
    close(file);
    const char* tracer = length > 0 ? std::strstr(status, "TracerPid:") : nullptr;
    return tracer && std::atoi(tracer + std::strlen("TracerPid:")) != 0;
}

bool isOverdue(const Thread& thread) {
    return thread.isTaken && thread.operation && now() - thread.since >= mostSeconds;
}

// Only one thread reports, and only for so long: the heap may be locked for ever.
void report(int number, const siginfo_t& signal, const ucontext_t& context) {
    pthread_t other = 0;
    if (reporter.compare_exchange_strong(other, pthread_self())) {
        const itimerval mostOfAReport{{0, 0}, {5, 0}};
        setitimer(ITIMER_REAL, &mostOfAReport, nullptr);
        reportSignal(number, signal, context);
    }
    if (number == SIGALRM) end();
    if (pthread_equal(other, pthread_self())) {
        say("  its stack is damaged, so that the place cannot be told: is a local array overrun?\n");
        end();
    }
    for (;;)
        pause();
}

void handle(int number, siginfo_t* signal, void* context) {
    const int error = errno;
    const auto& processor = *static_cast<ucontext_t*>(context);
    if (number != SIGALRM || reporter || (self && isOverdue(*self) && !isTraced()))
        report(number, *signal, processor);
    for (const Thread& thread : threads) // the one to tell where it is
        if (isOverdue(thread) && !pthread_equal(thread.id, pthread_self()) && !isTraced())
            pthread_kill(thread.id, SIGALRM);
    errno = error;
}

void reportExit() {
    if (!self || !self->operation) return;
    sayOperation();
    say("ends the process with exit(), and would end the Java virtual machine\n");
    sayPlace(0);
    end();
}

constexpr int crashSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGALRM};

void runThread(const std::function<void()>& action) {
    for (Thread& thread : threads)
        if (!thread.isTaken.exchange(true)) {
            self = &thread;
            break;
        }
    self->id = pthread_self();
    pthread_attr_t attributes;
    void* stack = nullptr;
    size_t size = 0;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstack(&attributes, &stack, &size);
    pthread_attr_destroy(&attributes);
    self->stackStart = reinterpret_cast<uintptr_t>(stack);
    std::vector<unsigned char> handlerStack(handlerStackSize);
    const stack_t alternative{handlerStack.data(), 0, handlerStack.size()}, none{nullptr, SS_DISABLE, 0};
    sigaltstack(&alternative, nullptr);
    action();
    sigaltstack(&none, nullptr);
    self->isTaken = false;
}

} // namespace

CurrentCall::CurrentCall(const char* operation, PictureSize size) {
    self->size = size;
    self->since = now();
    self->operation = operation;
}

CurrentCall::~CurrentCall() { self->operation = nullptr; }

void reportCrashes(const std::string& file, const ModuleSymbols& symbols, int seconds) {
    moduleFile = file;
    moduleSymbols = &symbols;
    mostSeconds = seconds;
    void* frame = nullptr;
    backtrace(&frame, 1); // loads the unwinder, which a damaged heap may not let it do later
    struct sigaction action {};
    action.sa_sigaction = handle;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART | SA_NODEFER;
    for (const int number : crashSignals)
        sigaction(number, &action, nullptr);
    std::atexit(reportExit);
    const itimerval second{{1, 0}, {1, 0}};
    if (seconds > 0) setitimer(ITIMER_REAL, &second, nullptr);
}

void removeAtCrash(const std::string& file) { fileToRemove = file; }

void runLikeJava(const std::vector<std::function<void()>>& actions) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, javaStackSize);
    pthread_attr_setguardsize(&attributes, stackGuardSize);
    struct Task {
        const std::function<void()>& action;
        pthread_t thread = 0;
        std::exception_ptr thrown = nullptr;
    };
    std::vector<Task> tasks;
    for (const auto& action : actions)
        tasks.push_back({action});
    const auto run = [](void* given) -> void* {
        Task& task = *static_cast<Task*>(given);
        try {
            runThread(task.action);
        } catch (const std::exception&) {
            task.thrown = std::current_exception();
        }
        return nullptr;
    };
    for (Task& task : tasks)
        if (const int error = pthread_create(&task.thread, &attributes, run, &task))
            throw std::system_error(error, std::generic_category(), "no thread");
    pthread_attr_destroy(&attributes);
    for (const Task& task : tasks)
        pthread_join(task.thread, nullptr);
    for (const Task& task : tasks)
        if (task.thrown) std::rethrow_exception(task.thrown);
}
