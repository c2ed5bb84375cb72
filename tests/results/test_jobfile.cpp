#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "results/jobfile.h"
#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

std::vector<std::string> pathsOf(const Job& job)
{
    std::vector<std::string> paths;
    for (const JobClip& c : job.clips) {
        paths.push_back(c.clipPath);
        EXPECT_EQ(c.reserved0, 0);
        EXPECT_EQ(c.reserved1, 0);
    }
    return paths;
}

TEST(JobFile, RecognisesJobFilesByExtension)
{
    struct Case
    {
        const char* path;
        bool job;
    };
    const Case cases[] = {
        {"/in/job.qcin", true},   {"x.QCIN", true},   {"a.QcIn", true},
        {".qcin", true},          {"qcin", false},    {".qci", false},
        {"a.qcin.bak", false},    {"a.qcinx", false}, {"", false},
        {"/in/job.qcout", false}, {"aqcin", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        EXPECT_EQ(isJobFile(c.path), c.job);
    }
}

TEST(JobFile, ResultPathReplacesTheLastExtensionOfTheFileName)
{
    struct Case
    {
        const char* job;
        const char* result;
    };
    const Case cases[] = {
        {"/in/job.qcin", "/in/job.qcout"},
        {"/in/a.b/job.QCIN", "/in/a.b/job.qcout"},
        {"/in/a.b/job", "/in/a.b/job.qcout"}, // a dot in a folder is no extension
        {"job.x.qcin", "job.x.qcout"},
        {"job", "job.qcout"},
        {"C:\\a\\b.qcin", "C:\\a\\b.qcout"},
        {"C:\\a.d\\b", "C:\\a.d\\b.qcout"},
        {"/in/.qcin", "/in/.qcout"},
        {"/in/dir/", "/in/dir/.qcout"},
        {"", ".qcout"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.job);
        EXPECT_EQ(jobResultPath(c.job), c.result);
    }
}

TEST(JobFile, LoadJobReadsHideAndClipsWithTheDuplicateRules)
{
    XmlNode document;
    ASSERT_TRUE(document.Parse(
        "<Tarvo_QC Hide=\"1\">\r\n"
        "  <Clip File=\"/in/a.mxf\"/>\r\n"
        "  <CLIP File=\"/in/b.mxf\"/>\r\n"
        "  <Clip File=\"/in/a.mxf\"/>\r\n"
        "  <Clip File=\"/in/A.mxf\"/>\r\n"
        "  <Clip File=\"\"/>\r\n"
        "  <Clip/>\r\n"
        "  <Other File=\"/in/other.mxf\"/>\r\n"
        "  <Clip file=\"/in/lowercase-attribute.mxf\"/>\r\n"
        "  <Clip File=\"/in/a &amp; b.mxf\"><Clip File=\"/in/nested.mxf\"/></Clip>\r\n"
        "</Tarvo_QC>\r\n"));
    Job job;
    job.resultPath = "/in/job.qcout";
    ASSERT_EQ(loadJob(document, job), 1);
    EXPECT_EQ(job.hide, 1);
    EXPECT_EQ(job.resultPath, "/in/job.qcout");
    EXPECT_EQ(pathsOf(job),
              (std::vector<std::string>{"/in/a.mxf", "/in/b.mxf", "/in/A.mxf", "/in/a & b.mxf"}));

    // A second job adds only what is new, and its own Hide counts.
    ASSERT_TRUE(document.Parse("<tarvo_qc><Clip File=\"/in/b.mxf\"/><Clip File=\"/in/c.mxf\"/>"
                               "</tarvo_qc>"));
    ASSERT_EQ(loadJob(document, job), 1);
    EXPECT_EQ(job.hide, 0);
    EXPECT_EQ(pathsOf(job), (std::vector<std::string>{"/in/a.mxf", "/in/b.mxf", "/in/A.mxf",
                                                      "/in/a & b.mxf", "/in/c.mxf"}));
}

TEST(JobFile, LoadJobNeedsTheRoot)
{
    struct Case
    {
        const char* text;
        int result;
        std::int32_t hide;
        std::size_t clips;
    };
    const Case cases[] = {
        {"<Tarvo_QC Hide=\"1\"/>", 1, 1, 0},
        {"<Tarvo_QC Hide=\"yes\"><Clip File=\"/a\"/></Tarvo_QC>", 1, 0, 1},
        {"<Tarvo_QC Hide=\"-3\"/>", 1, -3, 0},
        {"<Job Hide=\"1\"><Clip File=\"/a\"/></Job>", 0, 7, 1},
        {"<Tarvo_QCX/>", 0, 7, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        XmlNode document;
        document.Parse(c.text);
        Job job;
        job.hide = 7;
        job.clips.push_back(JobClip{"/kept"});
        if (c.result == 1) {
            job.clips.clear();
        }
        EXPECT_EQ(loadJob(document, job), c.result);
        EXPECT_EQ(job.hide, c.hide);
        EXPECT_EQ(job.clips.size(), c.clips);
    }
}

TEST(JobFile, ReadJobFileFromDiskInEachEncoding)
{
    test::TempDir dir;
    XmlNode written;
    XmlNode* root = written.AddChild("Tarvo_QC");
    root->SetAttribute("Hide", "1");
    root->AddChild("Clip")->SetAttribute("File", "/in/\xC3\xA9t\xC3\xA9.mxf");
    const std::string utf16Path = (dir / "a.qcin").string();
    ASSERT_TRUE(written.Save(utf16Path));
    test::writeFile(
        dir / "b.QCIN",
        "\xEF\xBB\xBF<Tarvo_QC Hide=\"1\"><Clip File=\"/in/\xC3\xA9t\xC3\xA9.mxf\"/></Tarvo_QC>");
    test::writeFile(dir / "c.qcin",
                    "<Tarvo_QC Hide=\"1\"><Clip File=\"/in/\xE9t\xE9.mxf\"/></Tarvo_QC>");
    for (const char* name : {"a.qcin", "b.QCIN", "c.qcin"}) {
        SCOPED_TRACE(name);
        Job job;
        ASSERT_TRUE(readJobFile((dir / name).string(), job));
        EXPECT_EQ(job.hide, 1);
        EXPECT_EQ(pathsOf(job), std::vector<std::string>{"/in/\xC3\xA9t\xC3\xA9.mxf"});
    }

    test::writeFile(dir / "broken.qcin", "<Tarvo_QC Hide=\"1\"><Clip File=\"/in/x.mxf\"/>");
    for (const char* name : {"broken.qcin", "missing.qcin"}) {
        SCOPED_TRACE(name);
        Job job;
        job.clips.push_back(JobClip{"/kept"});
        EXPECT_FALSE(readJobFile((dir / name).string(), job));
        EXPECT_EQ(job.resultPath,
                  (dir / name).string().substr(0, (dir / name).string().size() - 5) + ".qcout");
        EXPECT_EQ(pathsOf(job), std::vector<std::string>{"/kept"});
        EXPECT_EQ(job.hide, 0);
    }
}

} // namespace
} // namespace tarvoqc
