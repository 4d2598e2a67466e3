#include "certificates.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace {

const char* const kConfiguration = R"([req]
distinguished_name = name
prompt = no
[name]
CN = test
[authority]
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign,cRLSign
subjectKeyIdentifier = hash
[ca]
default_ca = here
[here]
dir = FOLDER
database = $dir/index.txt
new_certs_dir = $dir
certificate = $dir/authority.pem
private_key = $dir/authority.key
rand_serial = yes
default_md = sha256
default_crl_days = 3650
policy = policy
unique_subject = no
copy_extensions = copy
[policy]
commonName = supplied
)";

const char* const kNewKey = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout ";

} // namespace

Certificates::Certificates()
{
    std::string folder = (std::filesystem::temp_directory_path() / "certificates-XXXXXX").string();
    if (::mkdtemp(folder.data()) == nullptr)
        throw std::runtime_error("no temporary folder for certificates");
    m_folder = folder;
    std::string configuration = kConfiguration;
    configuration.replace(configuration.find("FOLDER"), 6, m_folder);
    std::ofstream(path("openssl.cnf")) << configuration;
    std::ofstream(path("index.txt"));
    openssl("req -x509 -config openssl.cnf -extensions authority -days 3650 -subj /CN=" +
            std::filesystem::path(m_folder).filename().string() + std::string(kNewKey) +
            "authority.key -out authority.pem");
}

Certificates::~Certificates()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_folder, ignored);
}

void Certificates::openssl(const std::string& arguments) const
{
    const std::string command =
        "cd '" + m_folder + "' && openssl " + arguments + " >log 2>&1 </dev/null";
    if (std::system(command.c_str()) == 0)
        return;
    std::ostringstream log;
    log << std::ifstream(path("log")).rdbuf();
    throw std::runtime_error("openssl " + arguments + ": " + log.str());
}

void Certificates::make(const std::string& name, const Wish& wish)
{
    openssl("req -new -config openssl.cnf -subj /CN=" + name + " -addext subjectAltName=" +
            wish.names + kNewKey + name + ".key -out " + name + ".csr");
    openssl("ca -batch -notext -config openssl.cnf -startdate " + wish.begin + " -enddate " +
            wish.end + " -in " + name + ".csr -out " + name + ".pem");
}

void Certificates::makeSelfSigned(const std::string& name)
{
    openssl("req -x509 -config openssl.cnf -days 3650 -subj /CN=" + name +
            " -addext subjectAltName=DNS:localhost,IP:127.0.0.1" + kNewKey + name + ".key -out " +
            name + ".pem");
}

void Certificates::encryptKey(const std::string& name)
{
    openssl("ec -aes128 -passout pass:secret -in " + name + ".key -out encrypted");
    std::filesystem::rename(path("encrypted"), path(name + ".key"));
}

void Certificates::revoke(const std::string& name)
{
    openssl("ca -config openssl.cnf -revoke " + name + ".pem");
}

void Certificates::list()
{
    openssl("ca -config openssl.cnf -gencrl -out revoked.pem");
}
