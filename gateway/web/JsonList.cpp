#include "JsonList.h"

#include <algorithm>
#include <cstring>

namespace micro850::gateway {

namespace {

const int kUsualPart = 16 * 1024;

/// The rest of a list whose first items are made.
class ListStream : public HttpStream
{
public:
    explicit ListStream(JsonList list) : m_list(std::move(list)) { m_text = m_list.begin; }

    /// Makes items until there are about so many bytes. False at the end of the list.
    bool fill(int bytes)
    {
        while (m_text.size() < bytes && m_next < m_list.size) {
            if (m_next > 0)
                m_text += ',';
            m_text += m_list.item(m_next++);
        }
        if (m_next < m_list.size)
            return true;
        if (!m_ended)
            m_text += "]}";
        m_ended = true;
        return false;
    }
    const QByteArray& text() const { return m_text; }

    int read(char* bytes, int size) override
    {
        if (m_taken == m_text.size()) {
            m_text.clear();
            m_taken = 0;
            if (m_ended)
                return kEnd;
            if (!m_list.isValid())
                return kBroken;
            fill(kUsualPart);
        }
        const int count = std::min(size, m_text.size() - m_taken);
        std::memcpy(bytes, m_text.constData() + m_taken, static_cast<std::size_t>(count));
        m_taken += count;
        return count;
    }

private:
    JsonList m_list;
    QByteArray m_text;
    int m_taken = 0;
    int m_next = 0;
    bool m_ended = false;
};

} // namespace

HttpResponse listResponse(JsonList list)
{
    HttpResponse response;
    response.type = "application/json";
    response.headers.append(HttpHeader{"Cache-Control", "no-store"});
    auto stream = std::make_shared<ListStream>(std::move(list));
    if (stream->fill(kUsualPart))
        response.stream = std::move(stream);
    else
        response.body = stream->text();
    return response;
}

} // namespace micro850::gateway
