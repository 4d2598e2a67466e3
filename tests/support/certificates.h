#ifndef MICRO850_TESTS_CERTIFICATES_H
#define MICRO850_TESTS_CERTIFICATES_H

#include <string>

/// An authority for certificates of brokers and clients, made by openssl in a temporary folder,
/// which its end removes. Functions throw std::runtime_error when openssl refuses.
class Certificates
{
public:
    Certificates();
    ~Certificates();
    Certificates(const Certificates&) = delete;
    Certificates& operator=(const Certificates&) = delete;

    struct Wish
    {
        /// As in a certificate: "DNS:localhost,IP:127.0.0.1".
        std::string names = "DNS:localhost,IP:127.0.0.1";
        std::string begin = "20200101000000Z";
        std::string end = "20500101000000Z";
    };

    /// Makes NAME.pem and NAME.key, signed by the authority.
    void make(const std::string& name) { make(name, Wish()); }
    void make(const std::string& name, const Wish& wish);
    /// Makes NAME.pem and NAME.key, signed by nobody else.
    void makeSelfSigned(const std::string& name);
    /// Makes NAME.key, encrypted, of an existing NAME.pem.
    void encryptKey(const std::string& name);
    void revoke(const std::string& name);
    /// Makes revoked.pem, the list of those revoked so far.
    void list();

    std::string path(const std::string& name) const { return m_folder + "/" + name; }
    std::string authority() const { return path("authority.pem"); }

private:
    void openssl(const std::string& arguments) const;

    std::string m_folder;
};

#endif
