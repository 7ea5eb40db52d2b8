// aimwise-test-window: one X window for the tests, with a chosen WM_CLASS, rectangle and lines of
// text drawn large and black on white. Prints "ready" once the text is on screen; runs until killed.
//   aimwise-test-window --class KeePassXC --geometry 400x300+10+20 [--line TEXT]... [--size POINTS]
#include <X11/Xft/Xft.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

[[noreturn]] void die(const char* message) {
    std::fprintf(stderr, "aimwise-test-window: %s\n", message);
    std::exit(2);
}

void draw(Display* display, Window window, XftDraw* draw, XftFont* font, XftColor* ink,
          const std::vector<std::string>& lines, unsigned width, unsigned height) {
    XSetWindowBackground(display, window, WhitePixel(display, DefaultScreen(display)));
    XClearArea(display, window, 0, 0, width, height, False);
    int y = font->ascent + 20;
    for (const std::string& line : lines) {
        XftDrawStringUtf8(draw, ink, font, 20, y, reinterpret_cast<const FcChar8*>(line.data()),
                          static_cast<int>(line.size()));
        y += font->height + 10;
    }
    XSync(display, False);
}

}  // namespace

int main(int argc, char** argv) {
    std::string windowClass = "AimwiseTest", geometry = "400x300+0+0";
    std::vector<std::string> lines;
    double size = 28;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string flag = argv[i];
        if (flag == "--class") windowClass = argv[i + 1];
        else if (flag == "--geometry") geometry = argv[i + 1];
        else if (flag == "--line") lines.emplace_back(argv[i + 1]);
        else if (flag == "--size") size = std::atof(argv[i + 1]);
        else die("unknown flag");
    }

    Display* display = XOpenDisplay(nullptr);
    if (!display) die("cannot open display");
    int x = 0, y = 0;
    unsigned width = 400, height = 300;
    XParseGeometry(geometry.c_str(), &x, &y, &width, &height);
    const int screen = DefaultScreen(display);
    XSetWindowAttributes attributes{};
    attributes.background_pixel = WhitePixel(display, screen);
    attributes.border_pixel = BlackPixel(display, screen);
    const Window window = XCreateWindow(display, RootWindow(display, screen), x, y, width, height, 0,
                                        CopyFromParent, InputOutput, CopyFromParent, CWBackPixel | CWBorderPixel,
                                        &attributes);

    std::string instance = windowClass;
    for (char& c : instance) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    XClassHint hint{instance.data(), windowClass.data()};
    XSetClassHint(display, window, &hint);
    XStoreName(display, window, windowClass.c_str());
    XSizeHints sizeHints{};
    sizeHints.flags = USPosition | USSize;
    sizeHints.x = x, sizeHints.y = y, sizeHints.width = int(width), sizeHints.height = int(height);
    XSetWMNormalHints(display, window, &sizeHints);
    XSelectInput(display, window, ExposureMask | StructureNotifyMask);

    const std::string pattern = "DejaVu Sans:size=" + std::to_string(size);
    XftFont* font = XftFontOpenName(display, screen, pattern.c_str());
    if (!font) die("cannot open font");
    Visual* visual = DefaultVisual(display, screen);
    Colormap colormap = DefaultColormap(display, screen);
    XftColor ink;
    if (!XftColorAllocName(display, visual, colormap, "black", &ink)) die("cannot allocate colour");
    XftDraw* xft = XftDrawCreate(display, window, visual, colormap);

    XMapRaised(display, window);
    bool announced = false;
    for (;;) {
        XEvent event;
        XNextEvent(display, &event);
        if (event.type != Expose || event.xexpose.count != 0) continue;
        draw(display, window, xft, font, &ink, lines, width, height);
        if (!announced) {
            std::printf("ready\n");
            std::fflush(stdout);
            announced = true;
        }
    }
}
