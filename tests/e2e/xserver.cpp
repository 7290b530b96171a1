// conshow in a window of a real X server: pixels, keys, what goes wrong.

#include "tests/support.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

const std::string conshow = BUILD_DIR "/conshow";

// An X server of the test's own, whose screen is a file, and conshow in it.
class XServer : public testing::Test {
protected:
    XServer() {
        setenv("BBSCONFIG", "/dev/null", 1);
        setenv("BBSDISP", "xwindow", 1);
        setenv("BBSLOG", "log", 1);
        unsetenv("BBSFONT");
        std::string number;
        // Servers that start at the same moment may choose the same number: all but one give up.
        for (int tries = 0; tries < 5 && !number.ends_with('\n'); tries++) {
            server = std::make_unique<test::Program>(std::vector<std::string>{
                "Xvfb", "-displayfd", "1", "-nolisten", "tcp", "-noreset", "-screen", "0",
                "700x450x24", "-fbdir", home.path, "-fp",
                "/usr/share/fonts/X11/misc," SOURCE_DIR "/fonts,built-ins"});
            number = test::expect(server->out, "\n");
        }
        EXPECT_TRUE(number.ends_with('\n')) << "Xvfb did not start";
        setenv("DISPLAY", (":" + number.substr(0, number.find('\n'))).c_str(), 1);
    }
    ~XServer() override {
        kill(server->pid, SIGTERM); // it removes its lock and its socket then
        server->wait();
    }

    void show(const std::string &picture) {
        test::spew("p.ans", picture);
        shown = std::make_unique<test::Program>(std::vector<std::string>{conshow, "p.ans"});
    }
    // The server's screen: red, green and blue as one number. The window's border is 4 wide.
    uint32_t pixel(int x, int y) {
        const std::string file = test::slurp("Xvfb_screen0");
        if (file.size() < 100) {
            return 0;
        }
        uint32_t head[20] = {};
        memcpy(head, file.data(), sizeof head);
        const auto word = [&](size_t i) -> size_t { return ntohl(head[i]); };
        // Behind the header and its colours.
        const size_t at = word(0) + word(19) * 12 + static_cast<size_t>(y + 4) * word(12);
        uint32_t n = 0;
        memcpy(&n, &file[at + static_cast<size_t>(x + 4) * 4], 4);
        return n & 0xFFFFFF;
    }
    // A point in the middle of a cell.
    static int midx(int col) { return col * 8 + 4; }
    static int midy(int row) { return row * 16 + 12; }
    void becomes(int x, int y, uint32_t color) {
        uint32_t last = 0;
        EXPECT_TRUE(test::eventually([&] { return (last = pixel(x, y)) == color; }))
            << x << "," << y << " is " << std::hex << last << ", not " << color;
    }
    static void xdo(std::vector<std::string> args) {
        args.insert(args.begin(), "xdotool");
        const auto outcome = test::Program(args).wait();
        EXPECT_EQ(outcome.code(), 0) << outcome.err;
    }

    test::Home home;
    std::unique_ptr<test::Program> server;
    std::unique_ptr<test::Program> shown;
};

TEST_F(XServer, ColoursCursorAndExposure) {
    // Runs of full blocks and of blanks in the sixteen colours, then the cursor on a colour.
    std::string picture = "\033[1;1H";
    for (int color = 0; color < 16; color++) {
        const std::string n =
            std::string("0;") + (color < 8 ? "" : "1;") + "3" + std::to_string(color % 8);
        picture += "\033[" + n + "m\333\333";
    }
    show(picture + "\033[2;1H\033[44m    \033[0mX\033[2;3H");
    const uint32_t want[] = {0x000000, 0x8B0000, 0x008B00, 0x8B2323, 0x00008B, 0x8B008B,
                             0x008B8B, 0xA8A8A8, 0x545454, 0xEE0000, 0x00EE00, 0xFFFF00,
                             0x0000FF, 0xEE00EE, 0x00EEEE, 0xFFFFFF};
    for (int color = 0; color < 16; color++) {
        becomes(midx(2 * color), midy(0), want[color]);
    }
    becomes(midx(1), midy(1), 0x00008B);
    becomes(midx(2), 2 * 16 - 1, 0x8B2323); // the cursor, in 7 - background
    becomes(midx(2), 2 * 16, 0x8B2323);
    becomes(midx(2), 2 * 16 - 2, 0x00008B);
    becomes(midx(3), 2 * 16 - 1, 0x00008B);
    // Unmapped, the window is gone; mapped again it is empty until it is exposed.
    xdo({"search", "--name", "conshow", "windowunmap", "--sync"});
    becomes(midx(26), midy(0), 0);
    xdo({"search", "--name", "conshow", "windowmap", "--sync"});
    becomes(midx(26), midy(0), want[13]);
    becomes(midx(1), midy(1), 0x00008B);
    kill(shown->pid, SIGTERM);
    EXPECT_EQ(shown->wait().code(), 0);
}

TEST_F(XServer, OtherFonts) {
    setenv("BBSFONT", "fixed", 1); // 6 by 13
    show("\033[2;70H\033[1;31m\333\333\033[44m \033[0m");
    becomes(71 * 6 + 3, 13 + 8, 0x00008B);
    setenv("BBSFONT", "no-such-font", 1);
    const auto nofont = test::Program({conshow}).wait();
    EXPECT_EQ(nofont.err, "conshow: Unable to load font no-such-font.\n"
                          "Display open failed. Exiting.\n");
    EXPECT_EQ(nofont.code(), 1);
}

TEST_F(XServer, KeysArriveAsCodes) {
    show("\033[1;1H\333");
    becomes(midx(0), midy(0), 0xA8A8A8);
    // Those that give nothing stand in between; Escape ends.
    std::vector<std::string> args = {
        "key",       "F11",       "ctrl+Tab",  "ctrl+1",    "alt+semicolon",
        "a",         "shift+a",   "ctrl+a",    "alt+a",     "alt+shift+a",
        "5",         "alt+5",     "alt+0",     "semicolon", "Tab",
        "shift+Tab", "BackSpace", "Home",      "Up",        "Prior",
        "Left",      "Right",     "End",       "Down",      "Next",
        "Insert",    "Delete",    "ctrl+Home", "ctrl+Up",   "ctrl+Next",
        "F1",        "F9",        "shift+F10", "ctrl+F1",   "alt+F10",
        "space",     "Escape"};
    std::string want;
    for (const int code :
         {0x61,   0x41,   1,      0x1E00, 0x41,   0x35,   0x7C00, 0x8100, 0x3B,   9,      0x0F00,
          8,      0x4700, 0x4800, 0x4900, 0x4B00, 0x4D00, 0x4F00, 0x5000, 0x5100, 0x5200, 0x5300,
          0x7700, 0x8D00, 0x7600, 0x3B00, 0x4300, 0x5D00, 0x5E00, 0x7100, 0x20,   27}) {
        want += "gkdsp: key=" + std::to_string(code) + "\n";
    }
    xdo(args);
    EXPECT_EQ(shown->wait().code(), 0);
    std::string log = test::slurp("log");
    const std::string released = "altnum = 0 (-1 -1 -1)\n";
    size_t releases = 0;
    for (size_t at = 0; (at = log.find(released)) != std::string::npos; releases++) {
        log.erase(at, released.size());
    }
    EXPECT_EQ(log, want);
    EXPECT_EQ(releases, 6U);
}

TEST_F(XServer, EndsWithItsServer) {
    show("\033[1;1H\333");
    becomes(midx(0), midy(0), 0xA8A8A8);
    kill(server->pid, SIGTERM);
    EXPECT_EQ(shown->wait().code(), 1);
    const auto noserver = test::Program({conshow}).wait();
    EXPECT_EQ(noserver.err, "Display open failed. Exiting.\n");
    EXPECT_EQ(noserver.code(), 1);
    EXPECT_EQ(test::slurp("log"), "conshow: cannot connect to X server " +
                                      std::string(getenv("DISPLAY")) + ". Exiting.\n");
}

} // namespace
