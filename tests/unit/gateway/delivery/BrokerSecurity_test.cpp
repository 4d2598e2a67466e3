#include "BrokerSecurity.h"

#include "MqttConnection.h"
#include "UserError.h"
#include "broker.h"
#include "certificates.h"
#include "connection_owner.h"

#include <gtest/gtest.h>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <memory>
#include <ostream>

/// Failures show texts instead of their characters' codes.
static void PrintTo(const QString& text, std::ostream* out)
{
    *out << text.toStdString();
}

using namespace micro850;
using namespace micro850::gateway;

namespace {

const char* const kPassword = "t0ps3cret";

/// A broker of the test's certificates, and what a connection to it says.
class BrokerSecurityTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        certificates = std::make_unique<Certificates>();
        certificates->make("broker");
        certificates->make("client");
    }
    static void TearDownTestSuite() { certificates.reset(); }

    static QString file(const std::string& name)
    {
        return QString::fromStdString(certificates->path(name));
    }

    static std::string encrypted(const std::string& name)
    {
        return "allow_anonymous true\ncertfile " + certificates->path(name + ".pem") +
               "\nkeyfile " + certificates->path(name + ".key") + "\n";
    }

    void start(const std::string& configuration)
    {
        TestBroker::Settings settings;
        settings.more = configuration;
        broker = std::make_unique<TestBroker>(settings);
        address.port = broker->port();
    }

    /// A file with credentials that only its owner may read.
    QString credentials(const std::string& text, mode_t mode = 0600)
    {
        const QString path = file("credentials.json");
        std::ofstream(path.toStdString()) << text;
        ::chmod(path.toLocal8Bit().constData(), mode);
        return path;
    }

    /// What the first attempt comes to: empty when it is connected.
    QString outcome()
    {
        connection = std::make_unique<MqttConnection>(owner, address, clock);
        connection->start();
        if (!ConnectionOwner::run(*connection,
                                  [&] { return owner.connections + owner.reasons.size() > 0; }))
            return QStringLiteral("nothing happens");
        const QString said = owner.reasons.isEmpty() ? QString() : owner.reasons[0];
        EXPECT_FALSE(said.contains(QLatin1Char('\n'))) << qPrintable(said);
        EXPECT_FALSE(said.contains(QLatin1String(kPassword))) << qPrintable(said);
        EXPECT_EQ(connection->status().dump().find(kPassword), std::string::npos);
        return said;
    }

    BrokerSecurityTest()
    {
        address.host = QStringLiteral("localhost");
        address.clientId = QStringLiteral("gateway");
        address.isEncrypted = true;
        address.authoritiesFile = file("authority.pem");
    }

    static std::unique_ptr<Certificates> certificates;
    int argc = 1;
    char name[5] = "test";
    char* argv[2] = {name, nullptr};
    QCoreApplication application{argc, argv};
    VirtualClock clock;
    std::unique_ptr<TestBroker> broker;
    ConnectionOwner owner;
    BrokerAddress address;
    std::unique_ptr<MqttConnection> connection;
};

std::unique_ptr<Certificates> BrokerSecurityTest::certificates;

const QString kRefused = QStringLiteral("TLS: the certificate of the broker is refused: ");

/// A server of openssl that speaks no MQTT, with what it is told.
class OpensslServer
{
public:
    OpensslServer(const std::string& more, const Certificates& certificates)
    {
        // The broker has found a free port, which it leaves.
        TestBroker::Settings settings;
        settings.startsAtOnce = false;
        port = TestBroker(settings).port();
        const std::string command =
            "exec openssl s_server -quiet -accept 127.0.0.1:" + std::to_string(port) + " -cert " +
            certificates.path("broker.pem") + " -key " + certificates.path("broker.key") + " " +
            more + " >/dev/null 2>&1 </dev/null";
        m_process = ::fork();
        if (m_process == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            ::_exit(127);
        }
    }
    ~OpensslServer()
    {
        ::kill(m_process, SIGKILL);
        ::waitpid(m_process, nullptr, 0);
    }
    OpensslServer(const OpensslServer&) = delete;
    OpensslServer& operator=(const OpensslServer&) = delete;

    int port = 0;

private:
    pid_t m_process;
};

} // namespace

TEST_F(BrokerSecurityTest, ConnectsToABrokerWhoseCertificateIsInOrder)
{
    start(encrypted("broker"));
    EXPECT_EQ(outcome(), QString());
    MqttMessage message;
    message.topic = "a";
    message.payload = QByteArray(200000, 'x');
    connection->subscribe("a");
    const int token = connection->publish(message);
    ASSERT_TRUE(ConnectionOwner::run(
        *connection, [&] { return owner.messages.size() == 1 && owner.acknowledged.size() == 1; }));
    EXPECT_EQ(owner.acknowledged[0], token);
    EXPECT_EQ(owner.messages[0].payload, message.payload);
    connection->stop(std::chrono::seconds(20));
    EXPECT_EQ(connection->status()["state"], "stopped");
}

TEST_F(BrokerSecurityTest, ConnectsToAnAddressThatTheCertificateNames)
{
    start(encrypted("broker"));
    address.host = QStringLiteral("127.0.0.1");
    EXPECT_EQ(outcome(), QString());
}

TEST_F(BrokerSecurityTest, RefusesACertificateOfAnotherHost)
{
    Certificates::Wish wish;
    wish.names = "DNS:other.example,DNS:local*,IP:127.0.0.2";
    certificates->make("other", wish);
    start(encrypted("other"));
    EXPECT_EQ(outcome(), kRefused + QStringLiteral("it is not for localhost"));
}

TEST_F(BrokerSecurityTest, RefusesACertificateOfAnotherAddress)
{
    Certificates::Wish wish;
    wish.names = "DNS:localhost,DNS:127.0.0.1,IP:127.0.0.2";
    certificates->make("address", wish);
    start(encrypted("address"));
    address.host = QStringLiteral("127.0.0.1");
    EXPECT_EQ(outcome(), kRefused + QStringLiteral("it is not for 127.0.0.1"));
}

TEST_F(BrokerSecurityTest, RefusesACertificateThatHasExpired)
{
    Certificates::Wish wish;
    wish.end = "20200201000000Z";
    certificates->make("expired", wish);
    start(encrypted("expired"));
    EXPECT_EQ(outcome(), kRefused + QStringLiteral("it has expired"));
}

TEST_F(BrokerSecurityTest, RefusesACertificateThatIsNotValidYet)
{
    Certificates::Wish wish;
    wish.begin = "20490101000000Z";
    certificates->make("early", wish);
    start(encrypted("early"));
    EXPECT_EQ(outcome(),
              kRefused +
                  QStringLiteral("it is not valid yet: is the clock of this machine right?"));
}

TEST_F(BrokerSecurityTest, RefusesASelfSignedCertificate)
{
    certificates->makeSelfSigned("self");
    start(encrypted("self"));
    EXPECT_EQ(
        outcome(),
        kRefused +
            QStringLiteral("it is self-signed, and not among %1").arg(address.authoritiesFile));
}

TEST_F(BrokerSecurityTest, TakesASelfSignedCertificateThatIsAmongTheAuthorities)
{
    certificates->makeSelfSigned("known");
    start(encrypted("known"));
    address.authoritiesFile = file("known.pem");
    EXPECT_EQ(outcome(), QString());
}

TEST_F(BrokerSecurityTest, RefusesACertificateOfAnotherAuthority)
{
    const Certificates others;
    start(encrypted("broker"));
    address.authoritiesFile = QString::fromStdString(others.authority());
    EXPECT_EQ(outcome(),
              kRefused + QStringLiteral("none of %1 has signed it").arg(address.authoritiesFile));
}

TEST_F(BrokerSecurityTest, TrustsTheAuthoritiesOfTheSystemWhenNoneAreGiven)
{
    start(encrypted("broker"));
    address.authoritiesFile.clear();
    EXPECT_EQ(outcome(),
              kRefused +
                  QStringLiteral("none of the authorities of this system has signed it (name "
                                 "the file of its authority in \"tls\": "
                                 "{\"authorities\"})"));
}

// The broker sends the certificate of its authority, too.
TEST_F(BrokerSecurityTest, SaysThatAnAuthorityIsUnknownNotThatTheBrokerIsSelfSigned)
{
    start(encrypted("broker") + "cafile " + certificates->authority() + "\n");
    address.authoritiesFile.clear();
    const QString said = outcome();
    EXPECT_FALSE(said.contains(QStringLiteral("self-signed"))) << qPrintable(said);
    EXPECT_TRUE(said.endsWith(
        QStringLiteral(" (name the file of its authority in \"tls\": {\"authorities\"})")))
        << qPrintable(said);
}

TEST_F(BrokerSecurityTest, RefusesACertificateThatIsRevoked)
{
    certificates->make("withdrawn");
    certificates->revoke("withdrawn");
    certificates->list();
    start(encrypted("withdrawn"));
    address.revokedFile = file("revoked.pem");
    EXPECT_EQ(outcome(), kRefused + QStringLiteral("it is revoked"));
}

TEST_F(BrokerSecurityTest, TakesACertificateThatIsNotOnTheListOfThoseRevoked)
{
    certificates->list();
    start(encrypted("broker"));
    address.revokedFile = file("revoked.pem");
    EXPECT_EQ(outcome(), QString());
}

TEST_F(BrokerSecurityTest, RefusesACertificateWhoseAuthorityHasNoListOfThoseRevoked)
{
    Certificates others;
    others.list();
    start(encrypted("broker"));
    address.revokedFile = QString::fromStdString(others.path("revoked.pem"));
    EXPECT_EQ(outcome(),
              kRefused +
                  QStringLiteral("%1 has no list of its authority").arg(address.revokedFile));
}

TEST_F(BrokerSecurityTest, RefusesABrokerWithAnOldVersionOfTls)
{
    const OpensslServer server("-tls1_1 -cipher ALL:@SECLEVEL=0", *certificates);
    address.port = server.port;
    // It takes a moment until the server listens.
    const QString kNotYet =
        QStringLiteral("Connection refused (is the broker running, is the port right?)");
    QString said = kNotYet;
    for (int i = 0; i < 1000 && said == kNotYet; ++i) {
        owner.reasons.clear();
        said = outcome();
    }
    EXPECT_EQ(said, QStringLiteral("TLS: the broker does not offer TLS 1.2 or later"));
}

TEST_F(BrokerSecurityTest, ReportsABrokerThatDoesNotEncrypt)
{
    start("allow_anonymous true\n");
    const QString said = outcome();
    EXPECT_TRUE(said == QStringLiteral("TLS: the broker does not speak TLS on this port") ||
                said == QStringLiteral("the broker closed the connection (does this port speak "
                                       "TLS?)") ||
                said == QStringLiteral("Connection reset by peer (does this port speak TLS?)"))
        << qPrintable(said);
}

TEST_F(BrokerSecurityTest, ReportsABrokerThatEncryptsWhenTheGatewayDoesNot)
{
    start(encrypted("broker"));
    address.isEncrypted = false;
    const QString said = outcome();
    const QString hint = QStringLiteral(" (does this port expect TLS? set \"tls\")");
    EXPECT_TRUE(said == QStringLiteral("the broker closed the connection") + hint ||
                said == QStringLiteral("Connection reset by peer") + hint ||
                said == QStringLiteral("what answers there is no MQTT broker"))
        << qPrintable(said);
}

TEST_F(BrokerSecurityTest, ShowsItsCertificateToABrokerThatWantsOne)
{
    start(encrypted("broker") + "require_certificate true\ncafile " + certificates->authority());
    address.certificateFile = file("client.pem");
    address.keyFile = file("client.key");
    EXPECT_EQ(outcome(), QString());
}

TEST_F(BrokerSecurityTest, SaysThatTheBrokerWantsACertificate)
{
    start(encrypted("broker") + "require_certificate true\ncafile " + certificates->authority());
    EXPECT_EQ(outcome(), QStringLiteral("TLS: the broker wants a certificate of this client: set "
                                        "\"certificate\" and \"key\""));
}

TEST_F(BrokerSecurityTest, SaysThatTheBrokerRefusesItsCertificate)
{
    Certificates others;
    others.make("client");
    start(encrypted("broker") + "require_certificate true\ncafile " + certificates->authority());
    address.certificateFile = QString::fromStdString(others.path("client.pem"));
    address.keyFile = QString::fromStdString(others.path("client.key"));
    const QString said = outcome();
    EXPECT_TRUE(
        said.startsWith(QStringLiteral("TLS: the broker refuses the certificate of this client")))
        << qPrintable(said);
}

TEST_F(BrokerSecurityTest, RefusesAKeyThatOthersMayRead)
{
    certificates->make("open");
    ::chmod(certificates->path("open.key").c_str(), 0644);
    address.certificateFile = file("open.pem");
    address.keyFile = file("open.key");
    EXPECT_EQ(outcome(),
              QStringLiteral("tls.key: %1: others may read it: chmod o= makes it private")
                  .arg(address.keyFile));
}

TEST_F(BrokerSecurityTest, RefusesAKeyOfAnotherCertificateWithoutAskingForAPassPhrase)
{
    address.certificateFile = file("client.pem");
    address.keyFile = file("broker.key");
    EXPECT_EQ(outcome(), QStringLiteral("tls.key: %1: it is not the key of %2")
                             .arg(address.keyFile, address.certificateFile));
    certificates->make("locked");
    certificates->encryptKey("locked");
    owner.reasons.clear();
    address.certificateFile = file("locked.pem");
    address.keyFile = file("locked.key");
    EXPECT_EQ(outcome(), QStringLiteral("tls.key: %1: it has no key (PEM, without a pass phrase)")
                             .arg(address.keyFile));
}

TEST_F(BrokerSecurityTest, NamesAFileThatIsNoCertificate)
{
    const auto said = [this] {
        owner.reasons.clear();
        return outcome();
    };
    const QString other = file("openssl.cnf");
    address.revokedFile = other;
    EXPECT_EQ(said(), "tls.revoked: " + other + ": it has no list of revoked certificates (PEM)");
    address.keyFile = other;
    address.certificateFile = file("client.pem");
    ::chmod(other.toLocal8Bit().constData(), 0600);
    EXPECT_EQ(said(), "tls.key: " + other + ": it has no key (PEM, without a pass phrase)");
    address.certificateFile = other;
    EXPECT_EQ(said(), "tls.certificate: " + other +
                          ": it has no certificate that can be used "
                          "(PEM)");
    address.authoritiesFile = other;
    EXPECT_EQ(said(),
              "tls.authorities: " + other + ": it has no certificates of authorities (PEM)");
}

TEST_F(BrokerSecurityTest, NamesTheKeyOfAFileThatIsMissingOrAFolder)
{
    const auto expect = [this](QString& path, const char* key) {
        for (const auto& [other, what] :
             {std::make_pair("absent.pem", "there is no such file"), {".", "it is a folder"}})
        {
            owner.reasons.clear();
            path = file(other);
            EXPECT_EQ(outcome(), QStringLiteral("tls.%1: %2: %3").arg(key, path, what));
        }
    };
    expect(address.revokedFile, "revoked");
    address.certificateFile = file("client.pem");
    expect(address.keyFile, "key");
    expect(address.certificateFile, "certificate");
    expect(address.authoritiesFile, "authorities");
}

/// The broker knows the user "panel".
class BrokerPasswordTest : public BrokerSecurityTest, public ::testing::WithParamInterface<bool>
{
protected:
    BrokerPasswordTest()
    {
        address.isEncrypted = false;
        address.isVersion5 = GetParam();
        const std::string command = "mosquitto_passwd -b -c '" + certificates->path("users") +
                                    "' panel " + kPassword + " >/dev/null 2>&1";
        EXPECT_EQ(std::system(command.c_str()), 0);
        start("allow_anonymous false\npassword_file " + certificates->path("users") + "\n");
    }
};

INSTANTIATE_TEST_SUITE_P(Version, BrokerPasswordTest, ::testing::Bool(),
                         [](const auto& test) { return test.param ? "V5" : "V3"; });

TEST_P(BrokerPasswordTest, GivesUserAndPassword)
{
    address.credentialsFile =
        credentials(std::string("{\"user\": \"panel\", \"password\": \"") + kPassword + "\"}");
    EXPECT_EQ(outcome(), QString());
}

TEST_P(BrokerPasswordTest, SaysWhereTheWrongPasswordStands)
{
    address.credentialsFile =
        credentials(std::string("{\"user\": \"other\", \"password\": \"") + kPassword + "\"}");
    EXPECT_EQ(outcome(), QStringLiteral("the broker refuses the connection: not authorised: look "
                                        "at the user and the password in %1")
                             .arg(address.credentialsFile));
}

TEST_P(BrokerPasswordTest, SaysThatTheBrokerWantsAUser)
{
    EXPECT_EQ(outcome(), QStringLiteral("the broker refuses the connection: not authorised: it "
                                        "may want a user: set \"credentials\""));
}

TEST_F(BrokerSecurityTest, RefusesCredentialsThatGroupOrOthersMayRead)
{
    for (const mode_t mode : {0640, 0604, 0660, 0644}) {
        owner.reasons.clear();
        address.isEncrypted = false;
        address.credentialsFile = credentials(
            std::string("{\"user\": \"panel\", \"password\": \"") + kPassword + "\"}", mode);
        EXPECT_EQ(outcome(),
                  QStringLiteral("%1: group or others may read it: chmod 600 makes it private")
                      .arg(address.credentialsFile));
    }
}

TEST_F(BrokerSecurityTest, ShowsNothingOfCredentialsThatAreMalformed)
{
    for (const char* text :
         {"{\"user\": \"panel\", \"password\": [\"t0ps3cret\"]}",
          "{\"user\": [\"t0ps3cret\"], \"password\": \"x\"}", "{\"user\": \"t0ps3cret\"",
          "t0ps3cret", "[\"t0ps3cret\"]", "{\"user\": \"panel\", \"password\": \"t0ps3cret}",
          "{\"user\": \"panel\", \"t0ps3cret\": \"x\"}",
          "{\"user\": \"panel\", \"password\": t0ps3cret}", "{\"password\": \"t0ps3cret\"}"})
    {
        try {
            readCredentials(credentials(text));
            FAIL() << text;
        } catch (const UserError& error) {
            const std::string said = error.what();
            EXPECT_EQ(said.find("t0ps3cret"), std::string::npos) << said;
            EXPECT_EQ(said.find("ps3"), std::string::npos) << said;
            EXPECT_EQ(said.find(file("credentials.json").toStdString()), 0u) << said;
        }
    }
}

TEST_F(BrokerSecurityTest, AllowsNoDumpOfItsMemory)
{
    const pid_t child = ::fork();
    if (child == 0) {
        keepMemoryPrivate();
        rlimit limit = {1, 1};
        ::getrlimit(RLIMIT_CORE, &limit);
        ::_exit(::prctl(PR_GET_DUMPABLE) == 0 && limit.rlim_max == 0 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(BrokerSecurityTest, DoesNotWaitForCredentialsFromAPipe)
{
    const QString path = file("pipe");
    ASSERT_EQ(::mkfifo(path.toLocal8Bit().constData(), 0600), 0);
    EXPECT_THROW(readCredentials(path), UserError);
}

TEST_F(BrokerSecurityTest, SaysWhatIsWrongWithCredentials)
{
    const auto complaint = [](const QString& path) -> QString {
        try {
            readCredentials(path);
        } catch (const UserError& error) {
            return QString::fromUtf8(error.what()).mid(path.size());
        }
        return {};
    };
    const QString form = QStringLiteral("{\"user\": \"NAME\", \"password\": \"WORD\"}");
    const auto of = [&](const char* text) {
        const QString said = complaint(credentials(text));
        const QString end = "; it must be " + form + ", as JSON";
        EXPECT_TRUE(said.endsWith(end)) << qPrintable(said);
        return said.left(said.size() - end.size());
    };
    EXPECT_EQ(of(" \n"), ": it is empty");
    EXPECT_EQ(of("user=panel"), ": it is no JSON");
    EXPECT_EQ(of(R"({"user": 7})"), ": \"user\" is not a text in quotes");
    EXPECT_EQ(of(R"({"user": "a", "password": 7})"), ": \"password\" is not a text in quotes");
    EXPECT_EQ(of(R"({"password": "a"})"), ": it has no \"user\"");
    EXPECT_EQ(of("[]"), ": it has no \"user\"");
    EXPECT_EQ(of(R"({"user": "a", "pass": "b"})"),
              ": it has a key that is neither \"user\" nor \"password\"");
    EXPECT_EQ(complaint(file("absent.json")),
              ": there is no such file (create it: " + form + ", mode 0600)");
    EXPECT_EQ(complaint(file(".")), ": it is a folder; name a file with " + form);
}

TEST_F(BrokerSecurityTest, TriesAgainAfterAPauseThatGrows)
{
    certificates->makeSelfSigned("pause");
    start(encrypted("pause"));
    outcome();
    for (const int seconds : {1, 2, 4, 8, 16, 32, 60, 60}) {
        const int before = owner.wills;
        clock.advance(std::chrono::milliseconds(seconds * 500 - 1));
        connection->tick();
        EXPECT_EQ(owner.wills, before) << seconds;
        clock.advance(std::chrono::milliseconds(seconds * 500 + 1));
        connection->tick();
        EXPECT_EQ(owner.wills, before + 1) << seconds;
        ASSERT_TRUE(
            ConnectionOwner::run(*connection, [&] { return owner.reasons.size() == owner.wills; }));
    }
}
