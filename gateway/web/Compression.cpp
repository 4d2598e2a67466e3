#include "Compression.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace micro850::gateway {

namespace {

const int kGzip = 16; ///< added to the bits of the window: with the header of gzip
const int kWorthIt = 1024;
const int kFileMemory = 8;
// 32 KB for each stream: many clients can wait at the same time.
const int kStreamWindow = 12;
const int kStreamMemory = 5;

/// Another stream, compressed.
class GzipStream : public HttpStream
{
public:
    explicit GzipStream(std::shared_ptr<HttpStream> plain) : m_plain(std::move(plain))
    {
        m_works = deflateInit2(&m_state, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kStreamWindow + kGzip,
                               kStreamMemory, Z_DEFAULT_STRATEGY) == Z_OK;
        m_plain->setWake([this] { wake(); });
    }
    ~GzipStream() override
    {
        m_plain->setWake(nullptr);
        deflateEnd(&m_state);
    }
    GzipStream(const GzipStream&) = delete;
    GzipStream& operator=(const GzipStream&) = delete;

    int read(char* bytes, int size) override
    {
        if (!m_works)
            return kBroken;
        if (m_isOver)
            return kEnd;
        m_state.next_out = reinterpret_cast<Bytef*>(bytes);
        m_state.avail_out = static_cast<uInt>(size);
        while (m_state.avail_out == static_cast<uInt>(size)) {
            if (m_state.avail_in == 0 && !m_hasAll) {
                const int got = m_plain->read(m_input.data(), static_cast<int>(m_input.size()));
                if (got == 0 || got == kBroken)
                    return got;
                m_hasAll = got == kEnd;
                m_state.next_in = reinterpret_cast<Bytef*>(m_input.data());
                m_state.avail_in = m_hasAll ? 0 : static_cast<uInt>(got);
            }
            const int result = deflate(&m_state, m_hasAll ? Z_FINISH : Z_NO_FLUSH);
            m_isOver = result == Z_STREAM_END;
            if (m_isOver)
                break;
            if (result != Z_OK && result != Z_BUF_ERROR)
                return kBroken;
        }
        const int count = size - static_cast<int>(m_state.avail_out);
        return count == 0 && m_isOver ? kEnd : count;
    }

private:
    std::shared_ptr<HttpStream> m_plain;
    z_stream m_state{};
    std::array<char, 4096> m_input{};
    bool m_works = false;
    bool m_hasAll = false; ///< of the other stream
    bool m_isOver = false;
};

// "gzip;q=0" and "*;q=0" refuse it.
bool isRefused(const QByteArray& parameters)
{
    const QByteArray quality = parameters.mid(parameters.indexOf('=') + 1).trimmed();
    return parameters.contains('=') && quality.toDouble() <= 0;
}

} // namespace

bool takesGzip(const HttpRequest& request)
{
    for (const QByteArray& one : request.header("accept-encoding").toLower().split(',')) {
        const int semicolon = one.indexOf(';');
        const QByteArray name = (semicolon < 0 ? one : one.left(semicolon)).trimmed();
        if (name == "gzip")
            return semicolon < 0 || !isRefused(one.mid(semicolon + 1));
    }
    return false;
}

QByteArray gzipped(const QByteArray& bytes)
{
    z_stream state{};
    if (deflateInit2(&state, Z_BEST_COMPRESSION, Z_DEFLATED, MAX_WBITS + kGzip, kFileMemory,
                     Z_DEFAULT_STRATEGY) != Z_OK)
        return QByteArray();
    const auto size = static_cast<uLong>(bytes.size());
    QByteArray to(static_cast<int>(deflateBound(&state, size)), '\0');
    state.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.constData()));
    state.avail_in = static_cast<uInt>(size);
    state.next_out = reinterpret_cast<Bytef*>(to.data());
    state.avail_out = static_cast<uInt>(to.size());
    const bool isWhole = deflate(&state, Z_FINISH) == Z_STREAM_END;
    to.truncate(isWhole ? static_cast<int>(state.total_out) : 0);
    deflateEnd(&state);
    return to;
}

void compress(HttpResponse& response, const HttpRequest& request)
{
    const bool isLong = response.stream || response.body.size() > kWorthIt;
    if (response.type != "application/json" || !isLong)
        return;
    response.headers.append(HttpHeader{"Vary", "Accept-Encoding"});
    if (!takesGzip(request))
        return;
    if (response.stream) {
        response.stream = std::make_shared<GzipStream>(response.stream);
    } else {
        const QByteArray small = gzipped(response.body);
        if (small.isEmpty())
            return;
        response.body = small;
    }
    response.headers.append(HttpHeader{"Content-Encoding", "gzip"});
}

} // namespace micro850::gateway
