// A sink emulator keeps the protocol: a random run of creates, chunk batches,
// whole files, completions, descriptions, range downloads and deletions gets
// the same answers from a sink as from an emulator on disk, except that the
// sink's content is zeros of the same length.
#include <random>

#include "apps/emulator/file_store.h"
#include "tests/emulator/fixture.h"

namespace znv::emulator::test {
namespace {

using nlohmann::json;

// One emulator under test and the IDs it gave to the run's files.
struct Side {
    explicit Side(bool sink) {
        EmulatorOptions options;
        options.sink = sink;
        emulator = std::make_unique<Emulator>(options);
    }
    std::unique_ptr<Emulator> emulator;
    std::vector<std::string> ids;  // by the run's file number

    // The answer with this side's file IDs and port replaced by stand-ins,
    // so that both sides' answers compare equal.
    std::string normalised(const std::string& text) const {
        std::string out = text;
        for (size_t n = 0; n < ids.size(); ++n) {
            if (ids[n].empty()) continue;
            for (size_t at; (at = out.find(ids[n])) != std::string::npos;)
                out.replace(at, ids[n].size(), "<file " + std::to_string(n) + ">");
        }
        // The loopback host and its port (std::regex trips -Werror in sanitizer builds).
        const std::string host = "127.0.0.1:";
        for (size_t at = 0; (at = out.find(host, at)) != std::string::npos;) {
            size_t end = at + host.size();
            while (end < out.size() && out[end] >= '0' && out[end] <= '9')
                ++end;
            out.replace(at, end - at, "<host>");
            at += 6;
        }
        return out;
    }
};

struct Answer {
    long status = 0;
    std::string body;   // as received
    std::string range;  // Content-Range
    bool content = false;
};

TEST(EmulatorSink, AnswersLikeTheDiskEmulatorWithZerosForContent) {
    Side disk(false), sink(true);
    std::string error;
    ASSERT_TRUE(disk.emulator->start(&error)) << error;
    ASSERT_TRUE(sink.emulator->start(&error)) << error;
    EXPECT_TRUE(sink.emulator->dataDir().empty());

    std::mt19937 random(20261123);
    auto pick = [&](uint64_t n) {
        return std::uniform_int_distribution<uint64_t>(0, n - 1)(random);
    };
    // The sizes of the chunks the run sent last, per file and index, so that
    // completions are often right and sometimes wrong.
    std::vector<std::map<uint64_t, uint64_t>> sent;
    auto chunkSize = [&]() -> uint64_t {
        switch (pick(12)) {
            case 0:
                return kChunkStride;
            case 1:
                return kChunkStride + 1;  // refused
            case 2:
                return 0;  // refused
            default:
                return 1 + pick(3000);
        }
    };
    const std::string boundary = "0xKhTmLbOuNdArY-SINK";

    // Runs one request on a side; `file` names the run's file in the URL.
    auto perform1 = [&](Side& side, const std::string& method, const std::string& path, int file,
                        const std::string& body, std::vector<std::string> headers, bool content) {
        HttpRequest request;
        request.method = method;
        std::string id = file < 0 ? "no-such-file" : side.ids[static_cast<size_t>(file)];
        std::string url = path;
        if (auto at = url.find("{id}"); at != std::string::npos) url.replace(at, 4, id);
        request.url = (content ? side.emulator->rootURL() : side.emulator->baseURL()) + url;
        request.headers = std::move(headers);
        request.body = body;
        request.sendBody = !body.empty() || method == "PUT";
        auto response = znv::emulator::test::perform(request);
        return Answer{response.status, response.body, response.header("content-range"),
                      content && response.status / 100 == 2};
    };

    int creates = 0, completions = 0, contents = 0;
    for (int step = 0; step < 600; ++step) {
        const int files = static_cast<int>(disk.ids.size());
        const int file = files == 0 || pick(20) == 0 ? -1 : static_cast<int>(pick(files));
        std::string method, path, body;
        std::vector<std::string> headers = {kAuth};
        bool content = false;
        std::map<uint64_t, uint64_t> batch;
        switch (files == 0 ? 0 : pick(8)) {
            case 0:
                method = "POST", path = "files";
                body = json{{"fileName", "f" + std::to_string(step) + ".bin"}}.dump();
                headers.push_back("Content-Type: application/json");
                break;
            case 1:
            case 2: {
                method = "PUT", path = "files/{id}";
                std::vector<std::pair<uint64_t, std::string>> chunks;
                for (uint64_t n = 1 + pick(3); n > 0; --n) {
                    uint64_t index = pick(5);
                    uint64_t size = chunkSize();
                    chunks.emplace_back(index, std::string(size, static_cast<char>('a' + index)));
                    batch[index] = size;
                }
                body = batchBody(boundary, chunks);
                if (pick(10) == 0) body.resize(body.size() / 2);  // cut short: malformed
                headers.push_back("Content-Type: multipart/form-data; boundary=" + boundary);
                break;
            }
            case 3:
                method = "PUT", path = "files/{id}/fullfile";
                body = std::string(pick(100000), 'w');
                headers.push_back("Content-Type: application/octet-stream");
                break;
            case 4: {
                method = "POST", path = "files/{id}/complete";
                std::vector<std::pair<uint64_t, uint64_t>> expected;
                if (file >= 0) {
                    for (auto [index, size] : sent[static_cast<size_t>(file)])
                        expected.emplace_back(index, size);
                }
                if (!expected.empty() && pick(4) == 0) expected[pick(expected.size())].second++;
                if (expected.empty() || pick(6) == 0) expected.emplace_back(5, 1 + pick(3000));
                body = expectedChunksBody(expected);
                headers.push_back("Content-Type: application/json");
                break;
            }
            case 5:
                method = "GET", path = "files/{id}";
                break;
            case 6: {
                method = "GET", path = "content/{id}", content = true;
                headers.clear();
                const uint64_t a = pick(120000), b = pick(120000);
                const std::string ranges[] = {
                    "", "bytes=" + std::to_string(a) + "-" + std::to_string(b),
                    "bytes=" + std::to_string(a) + "-", "bytes=-" + std::to_string(b), "bytes=0-0"};
                const std::string& range = ranges[pick(5)];
                if (!range.empty()) headers.push_back("Range: " + range);
                break;
            }
            case 7:
                if (pick(3) != 0) continue;  // deletions are rarer
                method = "DELETE", path = "files/{id}";
                break;
        }
        Answer onDisk = perform1(disk, method, path, file, body, headers, content);
        Answer inSink = perform1(sink, method, path, file, body, headers, content);
        SCOPED_TRACE(method + " " + path + " file " + std::to_string(file) + " step " +
                     std::to_string(step));
        if (method == "POST" && path == "files" && onDisk.status == 201 && inSink.status == 201) {
            disk.ids.push_back(json::parse(onDisk.body).value("fileId", ""));
            sink.ids.push_back(json::parse(inSink.body).value("fileId", ""));
            sent.emplace_back();
            ++creates;
        }
        EXPECT_EQ(inSink.status, onDisk.status) << inSink.body << " | " << onDisk.body;
        EXPECT_EQ(inSink.range, onDisk.range);
        if (onDisk.content) {
            EXPECT_EQ(inSink.body.size(), onDisk.body.size());
            EXPECT_EQ(inSink.body.find_first_not_of('\0'), std::string::npos);
            ++contents;
        } else {
            EXPECT_EQ(sink.normalised(inSink.body), disk.normalised(onDisk.body));
        }
        if (path == "files/{id}/complete" && onDisk.status == 200) ++completions;
        if (!batch.empty() && onDisk.status == 200) {
            for (auto [index, size] : batch)
                sent[static_cast<size_t>(file)][index] = size;
        }
    }
    // The run reached every kind of answer.
    EXPECT_GT(creates, 10);
    EXPECT_GT(completions, 3);
    EXPECT_GT(contents, 10);
}

}  // namespace
}  // namespace znv::emulator::test
