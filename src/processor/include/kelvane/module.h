// The interface between the processing pipeline (AVCProcessor in Java) and a module: a shared library for
// 64-bit Linux that alters decoded pictures, or the compressed stream, on their way through the pipeline.
//
// A module in C++ derives a class from CModuleProcessor and defines the three functions at the end of this
// file; it needs C++11 and nothing else of ours. One in C fills a KelvaneModuleOperations instead. The
// pipeline knows either by the order of the operations alone, so never add, remove or reorder any.
//
// Threads: every call is made on the Java thread that called AVCProcessor and is over before that call
// returns. One processor object is used by one thread at a time, not always by the same one; different
// objects of one module are used by different threads at once. A pipeline waits for its module: what a module
// takes is added to every picture. A Java thread has a stack of 1 MB, as a rule.
//
// Exceptions: one that leaves an operation, a destructor or an entry point ends there, and the pipeline goes
// on as if 0 had been returned. The first is reported on standard error, and how many there were once the
// pipeline is done with the module. Any other crash ends the process: a module runs inside the Java virtual
// machine, beside all its streams.

#ifndef KELVANE_MODULE_H
#define KELVANE_MODULE_H

// The number of the interface that this header describes. It changes when modules must be built again.
#define KELVANE_MODULE_INTERFACE 1

#ifdef __cplusplus

class CModuleProcessor {
public:
    // A pipeline that replaces its module by another calls Close() and then deletes the object; a pipeline
    // that is closed hands the object to DestroyVideoProcessor() without Close(). Everything must be freed
    // either way.
    virtual ~CModuleProcessor() noexcept(false) {}

    // The module's GUID, the same as the exported GetGuid(). Called on every setting and when the pipeline is
    // closed.
    virtual unsigned int GetGuid() = 0;

    // Called once, ahead of the first Process(), with the size of the first decoded picture in pixels, cut to
    // its low 16 bits, and the four configuration bytes of AVCProcessor.open. The pointers are never null and
    // are valid during the call; what is written through them is lost. Settings may have been applied before.
    // Not called in pass-through mode, nor for an object that is attached after the first picture. The result
    // is ignored.
    virtual int Open(unsigned short width, unsigned short height, unsigned char* mode, unsigned char* option1,
                     unsigned char* option2, unsigned char* option3) = 0;

    // Called ahead of the first Process() with a picture of another size than the one before; sizes as for
    // Open(). An object attached after the first picture has had no Open() then. Not called in pass-through
    // mode. The result is ignored.
    virtual int Reinit(unsigned short width, unsigned short height) = 0;

    // One setting, at any time: two zero-terminated strings in Java's modified UTF-8, never null, valid
    // during the call. Return 1 when it was taken and 0 when it was refused: an unknown key, a wrong value.
    // Java is handed the result as it is, where -1 means that no module was asked; `kelvane process` takes 0
    // or less for a refusal.
    virtual int Apply(const char* key, const char* value) = 0;

    // Called for each decoded picture or, in pass-through mode, each access unit. The `size` bytes at `data`
    // may be changed in place, during the call only; nothing can be made longer or shorter. `data` is aligned
    // as malloc() aligns, to 16 bytes.
    //
    // Decoding mode: `data` is a packed I420 picture of the width w and height h announced last: h rows of w
    // bytes of Y, then h / 2 rows of w / 2 bytes of U, then as many of V, divisions rounded down, nothing
    // between rows or planes. `size` is w * h * 12 / 8, so that an odd size leaves a few bytes that mean
    // nothing. The pipeline works with 8-bit 4:2:0 alone: see the guide for sources that are anything else.
    // `*timestamp` is the time of the access unit that was written last or, for the pictures that come out at
    // the end of a stream, their own, in the caller's unit (milliseconds, as a rule); what is left there is
    // delivered with the encoded picture. Return 0 to drop the picture, anything else to have it encoded and
    // delivered.
    //
    // Pass-through mode: `data` is the access unit as the caller wrote it (H.264 NAL units, as a rule each
    // behind a start code), `size` its length, which may be 0, and `*timestamp` its time. Both are delivered
    // as they are left. The result is ignored.
    virtual int Process(unsigned char* data, int size, int* timestamp) = 0;

    // Called before the object is deleted, but not before DestroyVideoProcessor(), see the destructor. No
    // further call but the deletion follows.
    virtual void Close() = 0;
};

#define KELVANE_MODULE_ENTRY extern "C" __attribute__((visibility("default")))

#else // C

typedef struct CModuleProcessor CModuleProcessor;

// What an object of the C++ class points to, slot by slot, for authors in C and in any language that can lay
// out a table of C functions. An object is a structure of the module's own whose first member is a
// `const KelvaneModuleOperations*`; each operation gets it back as `self`. What is said above of the C++
// operations holds for these.
typedef struct KelvaneModuleOperations {
    // Slots 0 and 1 are the two that a virtual destructor takes: one destroys an object and leaves its memory
    // to whoever owns that, the other frees it as well. The pipeline never calls the first, which may be
    // null, and calls the second where it replaces a module by another, after Close.
    void (*DestroyInPlace)(CModuleProcessor* self);
    void (*Delete)(CModuleProcessor* self);
    unsigned int (*GetGuid)(CModuleProcessor* self);
    int (*Open)(CModuleProcessor* self, unsigned short width, unsigned short height, unsigned char* mode,
                unsigned char* option1, unsigned char* option2, unsigned char* option3);
    int (*Reinit)(CModuleProcessor* self, unsigned short width, unsigned short height);
    int (*Apply)(CModuleProcessor* self, const char* key, const char* value);
    int (*Process)(CModuleProcessor* self, unsigned char* data, int size, int* timestamp);
    void (*Close)(CModuleProcessor* self);
} KelvaneModuleOperations;

#define KELVANE_MODULE_ENTRY __attribute__((visibility("default")))

#endif

// The number that Java names the module by, any but 0: pick one at random. Always the same; asked for at
// every look-up, from any thread.
KELVANE_MODULE_ENTRY unsigned int GetGuid(void);

// A new object, which the pipeline that asks owns from then on; null when it cannot be made, and the pipeline
// then goes on without a module. Called from any thread.
KELVANE_MODULE_ENTRY CModuleProcessor* CreateVideoProcessor(void);

// Frees an object and all it holds. Close() has not been called on it.
KELVANE_MODULE_ENTRY void DestroyVideoProcessor(CModuleProcessor* processor);

// Tells the pipeline which interface the module was built for; one that it does not know is not loaded. It
// is defined here, in as many sources of a module as include this header, and may be missing: then nothing is
// asked.
KELVANE_MODULE_ENTRY unsigned int GetModuleInterface(void);
KELVANE_MODULE_ENTRY __attribute__((weak, used)) unsigned int GetModuleInterface(void) {
    return KELVANE_MODULE_INTERFACE;
}

#endif
