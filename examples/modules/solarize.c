// Turns what is brighter than a threshold into its negative; a module in plain C. Setting: "threshold", 0
// (the whole picture) to 255 (nothing; the default is 128).

#include <kelvane/i420.h>
#include <kelvane/module.h>

#include <stdlib.h>
#include <string.h>

typedef struct Solarize {
    const KelvaneModuleOperations* operations; // first, where the pipeline looks for them
    int width;                                 // pixels
    int height;
    int threshold;
} Solarize;

static void destroy(CModuleProcessor* self) { free(self); }

static unsigned int guid(CModuleProcessor* self) {
    (void)self;
    return GetGuid();
}

static int reinit(CModuleProcessor* self, unsigned short width, unsigned short height) {
    Solarize* const solarize = (Solarize*)self;
    solarize->width = width;
    solarize->height = height;
    return 1;
}

static int open(CModuleProcessor* self, unsigned short width, unsigned short height, unsigned char* mode,
                unsigned char* option1, unsigned char* option2, unsigned char* option3) {
    (void)mode, (void)option1, (void)option2, (void)option3;
    return reinit(self, width, height);
}

static int apply(CModuleProcessor* self, const char* key, const char* value) {
    char* end = NULL;
    const long number = strtol(value, &end, 10);
    if (strcmp(key, "threshold") != 0 || end == value || *end || number < 0 || number > 255) return 0;
    ((Solarize*)self)->threshold = (int)number;
    return 1;
}

static int process(CModuleProcessor* self, unsigned char* data, int size, int* timestamp) {
    const Solarize* const solarize = (const Solarize*)self;
    I420View picture;
    (void)timestamp;
    if (!I420Of(&picture, data, size, solarize->width, solarize->height)) return 1;
    for (long i = 0; i < (long)picture.y.width * picture.y.height; ++i)
        if (picture.y.data[i] > solarize->threshold)
            picture.y.data[i] = (unsigned char)(255 - picture.y.data[i]);
    return 1;
}

static void closeObject(CModuleProcessor* self) { (void)self; }

static const KelvaneModuleOperations operations = {NULL,   destroy, guid,    open,
                                                   reinit, apply,   process, closeObject};

unsigned int GetGuid(void) { return 0x736f6c61; }

CModuleProcessor* CreateVideoProcessor(void) {
    Solarize* const made = calloc(1, sizeof *made);
    if (!made) return NULL;
    made->operations = &operations;
    made->threshold = 128;
    return (CModuleProcessor*)made;
}

void DestroyVideoProcessor(CModuleProcessor* processor) { destroy(processor); }
