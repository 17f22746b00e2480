// The planes of the pictures that a module's Process() is given. A help that no module needs; C and C++.

#ifndef KELVANE_I420_H
#define KELVANE_I420_H

// One plane of a packed picture: `height` rows of `width` bytes, one row right behind the other. Without
// pixels, as the chroma of a picture of one row or column is, it must not be read either.
typedef struct I420Plane {
    unsigned char* data;
    int width;
    int height;
} I420Plane;

typedef struct I420View {
    I420Plane y;
    I420Plane u; // of half the width and height, rounded down
    I420Plane v;
} I420View;

// Bytes of the buffer of a packed picture; an odd size leaves a few that belong to no plane.
static inline long I420Size(int width, int height) { return 1L * width * height * 12 / 8; }

// Sets `view` to the planes of the picture at `data` and returns 1, or returns 0 where these bytes are no
// picture of that size. So it is in pass-through mode, and for an object that was attached in mid-stream and
// has been told no size yet (give 0 for the size then): Process() is to leave `data` alone.
static inline int I420Of(I420View* view, unsigned char* data, int size, int width, int height) {
    long luma, chroma;
    if (width <= 0 || height <= 0 || size != I420Size(width, height)) return 0;
    luma = 1L * width * height;
    chroma = 1L * (width / 2) * (height / 2);
    view->y.data = data;
    view->y.width = width;
    view->y.height = height;
    view->u.data = data + luma;
    view->v.data = data + luma + chroma;
    view->u.width = view->v.width = width / 2;
    view->u.height = view->v.height = height / 2;
    return 1;
}

#endif
