// Preloaded into clang-tidy by scripts/analyze: its checks go through the code of the project only.
// clang-tidy searches the headers of the system too, which takes three quarters of its time, and
// then drops what it found there.

#include <clang/AST/ASTConsumer.h>
#include <clang/AST/ASTContext.h>
#include <clang/ASTMatchers/ASTMatchFinder.h>
#include <clang/Basic/SourceManager.h>

#include <memory>
#include <vector>

namespace {

class OwnCode : public clang::ASTConsumer
{
public:
    explicit OwnCode(clang::ast_matchers::MatchFinder* finder) : m_finder(finder) {}

    void HandleTranslationUnit(clang::ASTContext& context) override
    {
        const clang::SourceManager& sources = context.getSourceManager();
        std::vector<clang::Decl*> own;
        for (clang::Decl* declared : context.getTranslationUnitDecl()->decls()) {
            // Where a macro is used counts, not where it is defined.
            const auto place = sources.getExpansionLoc(declared->getLocation());
            if (place.isInvalid() || !sources.isInSystemHeader(place))
                own.push_back(declared);
        }
        context.setTraversalScope(own);
        m_finder->matchAST(context);
    }

private:
    clang::ast_matchers::MatchFinder* m_finder;
};

} // namespace

// Takes the place of the library's function, which clang-tidy calls once for each source.
std::unique_ptr<clang::ASTConsumer> clang::ast_matchers::MatchFinder::newASTConsumer()
{
    return std::make_unique<OwnCode>(this);
}
