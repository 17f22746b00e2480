#include "support/InstalledTool.h"
#include "support/Output.h"

#include <gtest/gtest.h>

#include <gnu/libc-version.h>
#include <map>

namespace {

// The artifacts of build/maven-repository, used from an empty working directory by a user with an empty home.
class InstalledRepository : public WithInstalledTree {
protected:
    void SetUp() override {
        ASSERT_TRUE(fs::exists(natives)) << "tools/build release maven-repository makes it";
        for (const char* folder : {"home", "work", "tmp"})
            fs::create_directory(root / folder);
    }

    std::string java(const std::string& arguments, const fs::path& home) const {
        return "(cd '" + (root / "work").string() + "' && env -u XDG_CACHE_HOME HOME='" + home.string() +
               "' java -XX:TieredStopAtLevel=1 -Djava.io.tmpdir='" + (root / "tmp").string() + "' " +
               arguments + " 2>&1)";
    }
    CommandResult runJava(const std::string& arguments) const { return run(java(arguments, root / "home")); }

    // The folder of the libraries in the cache.
    fs::path cached() const {
        const fs::path cache = root / "home/.cache/kelvane-media";
        EXPECT_EQ(names(cache).size(), 1);
        return cache / *names(cache).begin();
    }
    std::map<std::string, std::string> cachedContents() const {
        std::map<std::string, std::string> found;
        for (const std::string& name : names(cached()))
            found[name] = contents(cached() / name);
        return found;
    }
    void expectPicture(const CommandResult& result, const std::string& place) const {
        EXPECT_EQ(result.exitCode, 0) << result.output;
        EXPECT_NE(result.output.find("loaded " + place), std::string::npos) << result.output;
        EXPECT_EQ(names(root / "tmp"), std::set<std::string>{});
    }

    static std::string artifact(const std::string& name, const std::string& classifier) {
        return fs::path(MAVEN_REPOSITORY) / "com/kelvane" / name / PROJECT_VERSION /
               (name + "-" PROJECT_VERSION + classifier + ".jar");
    }

    const std::string jar = artifact("kelvane-media", "");
    const std::string natives = artifact("kelvane-media", "-linux-x86_64");
    const std::string classPath = "-cp " + jar + ":" + natives + ":" TEST_JAR " ";
    const std::string picture = "com.kelvane.media.test.Picture";
    const fs::path& root = directory;
};

} // namespace

TEST_F(InstalledRepository, WorksOnTheClassPathAndOnTheModulePath) {
    const std::string modules =
        "-p " + jar + ":" + natives + " -cp " TEST_JAR " --add-modules com.kelvane.media";
    for (const std::string& paths :
         {classPath, modules + " ", modules + ",com.kelvane.media.natives.linux.x86_64 "}) {
        SCOPED_TRACE(paths);
        expectPicture(runJava(paths + picture), root / "home/.cache/kelvane-media/");
        EXPECT_EQ(names(cached()).size(), 8);
        for (const fs::path& folder : {cached(), cached().parent_path()})
            EXPECT_EQ(fs::status(folder).permissions(), fs::perms::owner_all) << folder;
    }
}

TEST_F(InstalledRepository, UnpacksOnceForFourProcessesThatStartTogether) {
    const std::string start = java(classPath + picture, root / "home") + " & ";
    const CommandResult result = run(start + "a=$!; " + start + "b=$!; " + start + "c=$!; " + start +
                                     "wait $! && wait $a && wait $b && wait $c");
    expectPicture(result, cached().string());
    const auto unpacked = fs::last_write_time(cached() / "libkelvane_media.so");
    expectPicture(runJava(classPath + picture), cached().string());
    EXPECT_EQ(fs::last_write_time(cached() / "libkelvane_media.so"), unpacked);
}

TEST_F(InstalledRepository, RepairsWhatIsWrongInTheCache) {
    ASSERT_EQ(runJava(classPath + picture).exitCode, 0);
    const auto sound = cachedContents();
    const fs::path folder = cached();

    fs::resize_file(folder / "libavcodec.so.58", 100'000);
    std::fstream opus(folder / "libopus.so.0", std::ios::in | std::ios::out | std::ios::binary);
    opus.seekp(50'000) << "tampered";
    opus.close();
    fs::remove(folder / "libavutil.so.56");
    fs::rename(folder / "libswscale.so.5", root / "elsewhere");
    fs::create_symlink(root / "elsewhere", folder / "libswscale.so.5");
    std::ofstream(folder / "libz.so.1") << "found before the machine's own";

    expectPicture(runJava(classPath + picture), folder.string());
    EXPECT_TRUE(cachedContents() == sound);
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(folder / "libswscale.so.5")));
}

TEST_F(InstalledRepository, UnpacksForTheProcessAloneWhereNoCacheIsSafe) {
    ASSERT_EQ(runJava(classPath + picture).exitCode, 0);
    const fs::path ownTemporary = root / "tmp/kelvane-media-";
    {
        SCOPED_TRACE("a home that is read-only, for root as well");
        expectPicture(run(java(classPath + picture, "/proc")), ownTemporary);
    }
    for (const fs::path& folder : {cached(), cached().parent_path()}) {
        SCOPED_TRACE(folder);
        fs::permissions(folder, fs::perms::group_write, fs::perm_options::add);
        expectPicture(runJava(classPath + picture), ownTemporary);
        fs::permissions(folder, fs::perms::owner_all);
    }
    if (geteuid() == 0) {
        ASSERT_EQ(chown(cached().c_str(), 1, 1), 0);
        expectPicture(runJava(classPath + picture), ownTemporary);
    }
}

TEST_F(InstalledRepository, GivesEachClassLoaderALibraryOfItsOwn) {
    const std::string library = tree.string() + "/lib/amd64-Linux-gpp/jni";
    const std::string main = " -cp " TEST_JAR " com.kelvane.media.test.ClassLoaders " TEST_JAR " ";
    for (const std::string& arguments :
         {"-Dkelvane.library=" + library + "/libkelvane_media.so" + main + jar,
          main + (tree / "lib/kelvane-media.jar").string(), main + jar + " " + natives,
          "-Djava.library.path=/nowhere:" + library + main + jar}) {
        SCOPED_TRACE(arguments);
        const CommandResult result = runJava(arguments);
        EXPECT_EQ(result.exitCode, 0);
        for (const char* line : {"first class loader collected\n", "other class loader went on\n"})
            EXPECT_NE(result.output.find(line), std::string::npos) << result.output;
        EXPECT_EQ(names(root / "tmp"), std::set<std::string>{});
    }
}

TEST_F(InstalledRepository, TellsWhereItLooks) {
    const CommandResult found =
        runJava("-Dkelvane.openh264=opt/openh264.so " + classPath + "com.kelvane.media.Places");
    const std::string folder = cached(), work = root / "work";
    const std::string own = "set -Dkelvane.library=/path/to/libkelvane_media.so\n";
    const std::string madeFor = "it is made for Linux with glibc on x86-64 and 64-bit Arm, and ";
    EXPECT_EQ(found.output,
              "null\n" + madeFor + "the C library of this machine is musl\n" + madeFor +
                  "this is Mac OS X on x86_64\n" + madeFor + "this is Linux on riscv64\n2.36\n2.17\nnull\n" +
                  folder + "\n" + work + "/opt/openh264.so\n" + folder + "/libopenh264-1.8.0-linux64.4.so\n" +
                  folder + "/libopenh264.so.7\n" +
                  "libopenh264.so.7\nlibopenh264.so.8\nlibopenh264.so.6\nlibopenh264.so.5\nlibopenh264.so.4\n"
                  "add the artifact com.kelvane:kelvane-media of classifier linux-x86_64 to the "
                  "class path, run from an installed tree (lib/kelvane-media.jar beside "
                  "lib/amd64-Linux-gpp/jni/libkelvane_media.so), or " +
                  own +
                  "start the virtual machine with --enable-native-access=ALL-UNNAMED\n"
                  "run it on a newer system (it needs glibc 2.99, this is " +
                  gnu_get_libc_version() + "), or build it for this one and " + own +
                  "see to what is told of the library that is there, or " + own);

    const CommandResult foreign = runJava("-Dos.arch=riscv64 " + classPath + picture);
    EXPECT_NE(
        foreign.output.find("UnsatisfiedLinkError: libkelvane_media.so could not be loaded: " + madeFor +
                            "this is Linux on riscv64. Tried:\n"
                            "  system property kelvane.library: not set\nTo fix it, "),
        std::string::npos)
        << foreign.output;

    std::string newer = contents(NATIVE_LIBRARY);
    const size_t version = newer.find("GLIBC_2.");
    ASSERT_NE(version, std::string::npos);
    newer[version + 6] = '9'; // which no system has yet
    std::ofstream(root / "work/newer.so", std::ios::binary) << newer;
    const CommandResult old = runJava("-Dkelvane.library=newer.so -cp " + jar + ":" TEST_JAR " " + picture);
    EXPECT_NE(old.output.find("\nTo fix it, run it on a newer system (it needs glibc 9."), std::string::npos)
        << old.output;

    const CommandResult none = runJava("-cp " + jar + ":" TEST_JAR " " + picture);
    for (const char* line :
         {"\n  installed tree: ", "\n  folder of the jar: ",
          "\n  natives jar, unpacked in the cache: not on the class path or module path\n",
          "\n  java.library.path: ", "\nTo fix it, add the artifact com.kelvane:kelvane-media"})
        EXPECT_NE(none.output.find(line), std::string::npos) << line << none.output;
}

TEST_F(InstalledRepository, HasTheToolWhichWritesTheSameInEveryLocale) {
    const std::string tool = artifact("kelvane-tool", "");
    const std::string paths = " -cp " + tool + ":" + jar + ":" + natives + ":" PICOCLI_JAR ":" JACKSON_JAR;
    const std::string withPrograms = paths + ":" + artifact("kelvane-tool", "-linux-x86_64");
    const std::string main = " com.kelvane.media.tool.Kelvane ";
    const std::string ladder = " --segment 1 -r 160x90@100k -r 80x46@60k ";
    const std::string clip = tree / "share/kelvane/demo.mp4";
    std::map<std::string, std::string> expected;
    // Egypt's numbers have digits of their own, and another sign where others have a point or a comma.
    for (const std::string locale : {"-Duser.language=en", "-Duser.language=ar -Duser.country=EG"}) {
        SCOPED_TRACE(locale);
        const std::string call = locale + withPrograms + main;
        const CommandResult film =
            runJava(call + "transcode " + clip + " --start 4.5 --duration 1.5 -o film" + ladder);
        ASSERT_EQ(film.exitCode, 0) << film.output;
        const CommandResult live = runJava(call + "live - -o live" + ladder + "<" TEST_DATA "/bframes.h264");
        ASSERT_EQ(live.exitCode, 0) << live.output;
        const size_t table = film.output.find("\nrendition ");
        ASSERT_NE(table, std::string::npos) << film.output;
        std::map<std::string, std::string> written{{"summary", film.output.substr(table)}};
        for (const char* file : {"film/result.json", "film/index.html", "film/master.m3u8",
                                 "film/160x90/media.m3u8", "live/master.m3u8", "live/80x46/media.m3u8"})
            written[file] = contents(root / "work" / file);
        EXPECT_NE(written["film/160x90/media.m3u8"].find("#EXTINF:1.0"), std::string::npos);
        for (auto& [file, text] : written) { // all but their figures
            std::erase_if(text, [](char c) { return c == '.' || (c >= '0' && c <= '9'); });
            EXPECT_TRUE(expected.empty() || text == expected[file]) << file << text;
        }
        expected = written;
        for (const char* folder : {"film", "live"})
            fs::remove_all(root / "work" / folder);
    }
    EXPECT_EQ(names(root / "work"), std::set<std::string>{});
    EXPECT_EQ(names(root / "tmp"), std::set<std::string>{});

    // A headless Java without fonts, for the sheet.
    std::ofstream(root / "fonts.conf") << "<?xml version='1.0'?><fontconfig/>";
    const CommandResult wordless =
        run("export FONTCONFIG_FILE='" + (root / "fonts.conf").string() + "'; " +
            java("-Duser.home='" + (root / "nobody").string() + "'" + withPrograms + main +
                     "transcode " TEST_DATA "/bframes.h264 -o film" + ladder,
                 root / "home"));
    EXPECT_EQ(wordless.exitCode, 0);
    EXPECT_NE(wordless.output.find("contact-sheet.png has no words: "), std::string::npos) << wordless.output;
    fs::remove_all(root / "work/film");

    // No home to unpack to; then none of the programs.
    const std::string probe = main + "transcode " TEST_DATA "/tiny.h264 -o film";
    for (const auto& [jars, reason] :
         {std::pair(withPrograms, "no usual size"), {paths, "artifact com.kelvane:kelvane-tool"}}) {
        const CommandResult failed = run(java(jars + probe, "/proc"));
        EXPECT_EQ(failed.exitCode, 1);
        EXPECT_NE(failed.output.find(reason), std::string::npos) << failed.output;
        EXPECT_EQ(names(root / "tmp"), std::set<std::string>{});
    }
}
