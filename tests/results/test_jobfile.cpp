#include <string>
#include <tuple>
#include <utility>
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
        EXPECT_EQ(c.reserved0 | c.reserved1, 0);
    }
    return paths;
}

TEST(JobFile, JobFilesAreKnownByExtensionWhichTheirResultReplaces)
{
    const std::pair<const char*, bool> cases[] = {
        {"/in/job.qcin", true},   {"x.QCIN", true},   {"a.QcIn", true},
        {".qcin", true},          {"qcin", false},    {".qci", false},
        {"a.qcin.bak", false},    {"a.qcinx", false}, {"", false},
        {"/in/job.qcout", false}, {"aqcin", false}};
    for (const auto& [path, job] : cases) {
        SCOPED_TRACE(path);
        EXPECT_EQ(isJobFile(path), job);
    }
    // The result path replaces the last extension of the file name.
    const std::pair<const char*, const char*> results[] = {
        {"/in/job.qcin", "/in/job.qcout"},    {"/in/a.b/job.QCIN", "/in/a.b/job.qcout"},
        {"/in/a.b/job", "/in/a.b/job.qcout"}, // a dot in a folder is no extension
        {"job.x.qcin", "job.x.qcout"},        {"C:\\a\\b.qcin", "C:\\a\\b.qcout"},
        {"C:\\a.d\\b", "C:\\a.d\\b.qcout"},   {"/in/.qcin", "/in/.qcout"},
        {"/in/dir/", "/in/dir/.qcout"},       {"", ".qcout"}};
    for (const auto& [job, result] : results) {
        SCOPED_TRACE(job);
        EXPECT_EQ(jobResultPath(job), result);
    }
}

TEST(JobFile, LoadJobNeedsTheRootAndReadsHideAndClipsWithTheDuplicateRules)
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

    // Hide is read as a number, and without the root nothing is read. Text, result, hide and
    // clip count after loading into a job that held Hide 7 and a clip:
    const std::tuple<const char*, int, std::int32_t, std::size_t> cases[] = {
        {"<Tarvo_QC Hide=\"1\"/>", 1, 1, 1},
        {"<Tarvo_QC Hide=\"yes\"><Clip File=\"/a\"/></Tarvo_QC>", 1, 0, 2},
        {"<Tarvo_QC Hide=\"-3\"/>", 1, -3, 1},
        {"<Job Hide=\"1\"><Clip File=\"/a\"/></Job>", 0, 7, 1},
        {"<Tarvo_QCX/>", 0, 7, 1}};
    for (const auto& [text, result, hide, clips] : cases) {
        SCOPED_TRACE(text);
        document.Parse(text);
        Job kept;
        kept.hide = 7;
        kept.clips.push_back(JobClip{"/kept"});
        EXPECT_EQ(loadJob(document, kept), result);
        EXPECT_EQ(kept.hide, hide);
        EXPECT_EQ(kept.clips.size(), clips);
    }
}

// A job read from disk is proven by the command-line checker's job tests; here what a file
// that cannot be read leaves in the job.
TEST(JobFile, ReadJobFileThatFailsKeepsTheClipsAndNamesTheResult)
{
    test::TempDir dir;
    test::writeFile(dir / "broken.qcin", "<Tarvo_QC Hide=\"1\"><Clip File=\"/in/x.mxf\"/>");
    test::writeFile(dir / "other.qcin", "<Other Hide=\"1\"><Clip File=\"/in/x.mxf\"/></Other>");
    const std::pair<const char*, const char*> cases[] = {
        {"broken", "could not be read"},
        {"missing", "could not be read"},
        {"other", "has no \"Tarvo_QC\" root element"}};
    for (const auto& [name, problem] : cases) {
        SCOPED_TRACE(name);
        Job kept;
        kept.clips.push_back(JobClip{"/kept"});
        std::string why;
        EXPECT_FALSE(readJobFile((dir / name).string() + ".qcin", kept, &why));
        EXPECT_EQ(why, problem);
        EXPECT_EQ(kept.resultPath, (dir / name).string() + ".qcout");
        EXPECT_EQ(pathsOf(kept), std::vector<std::string>{"/kept"});
        EXPECT_EQ(kept.hide, 0);
    }
}

} // namespace
} // namespace tarvoqc
