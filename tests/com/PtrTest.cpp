// CComPtr and CComQIPtr: each holds exactly one reference, and every way of filling, copying,
// moving or emptying them keeps the count right (checked on the object's own count and by the
// instance counters of the fixture).
#include <utility>

#include "TestObjects.h"

using namespace NSCom;
using namespace NSTest;

namespace {

class ComPtrTest : public CComKitTest {
 protected:
  void SetUp() override {
    CComKitTest::SetUp();
    ASSERT_EQ(S_OK, CComObject<CAlphaBeta>::CreateInstance(&m_pObject));
    m_pObject->AddRef();
  }
  void TearDown() override {
    EXPECT_EQ(1, Count());
    m_pObject->Release();
    CComKitTest::TearDown();
  }
  LONG Count() const { return m_pObject->InternalGetRefCount(); }
  ITestAlpha* Alpha() const { return static_cast<ITestGamma*>(m_pObject); }
  ITestBeta* Beta() const { return static_cast<ITestBeta*>(m_pObject); }

  CComObject<CAlphaBeta>* m_pObject = nullptr;  // one reference held by the fixture
};

}  // namespace

TEST_F(ComPtrTest, CopyMoveAndAssignmentKeepOneReferencePerPointer) {
  {
    CComPtr<ITestAlpha> sp1(Alpha());
    EXPECT_EQ(2, Count());
    CComPtr<ITestAlpha> sp2(sp1);
    EXPECT_EQ(3, Count());
    CComPtr<ITestAlpha> sp3(std::move(sp2));
    EXPECT_EQ(3, Count());
    EXPECT_EQ(nullptr, sp2.p);
    sp2 = sp3;
    EXPECT_EQ(4, Count());
    sp2 = std::move(sp3);
    EXPECT_EQ(3, Count());
    EXPECT_TRUE(!sp3);
    // Self-assignment of the last reference of the pointer keeps the object.
    CComPtr<ITestAlpha>& sp2Alias = sp2;
    sp2 = sp2Alias;
    sp2 = sp2Alias.p;
    EXPECT_EQ(3, Count());
    sp2 = nullptr;
    EXPECT_EQ(2, Count());
    // From a derived interface.
    CComPtr<ITestGamma> spGamma(static_cast<ITestGamma*>(m_pObject));
    CComPtr<ITestAlpha> spBase(spGamma);
    EXPECT_EQ(4, Count());
    EXPECT_EQ(static_cast<ITestAlpha*>(spGamma.p), spBase.p);
  }
  EXPECT_EQ(1, Count());
}

TEST_F(ComPtrTest, AttachDetachCopyToAndRelease) {
  CComPtr<ITestAlpha> sp;
  Alpha()->AddRef();
  sp.Attach(Alpha());
  EXPECT_EQ(2, Count());
  // Attaching releases what was held.
  Alpha()->AddRef();
  sp.Attach(Alpha());
  EXPECT_EQ(2, Count());

  ITestAlpha* pOut = nullptr;
  EXPECT_EQ(S_OK, sp.CopyTo(&pOut));
  EXPECT_EQ(Alpha(), pOut);
  EXPECT_EQ(3, Count());
  pOut->Release();
  EXPECT_EQ(E_POINTER, sp.CopyTo(nullptr));

  ITestAlpha* pDetached = sp.Detach();
  EXPECT_EQ(nullptr, sp.p);
  EXPECT_EQ(2, Count());
  pDetached->Release();

  sp = Alpha();
  sp.Release();
  sp.Release();
  EXPECT_EQ(1, Count());

  CComPtr<ITestAlpha> spEmpty;
  EXPECT_EQ(S_OK, spEmpty.CopyTo(&pOut));
  EXPECT_EQ(nullptr, pOut);
}

TEST_F(ComPtrTest, OutParameterAndTypedQuery) {
  CComPtr<ITestBeta> spBeta;
  ASSERT_EQ(S_OK, Alpha()->QueryInterface(__uuidof(ITestBeta), reinterpret_cast<void**>(&spBeta)));
  EXPECT_EQ(Beta(), spBeta.p);
  EXPECT_EQ(2, Count());

  CComPtr<ITestGamma> spGamma;
  EXPECT_EQ(S_OK, spBeta.QueryInterface(&spGamma));
  EXPECT_EQ(3, Count());
  CComPtr<ITestNobody> spNobody;
  EXPECT_EQ(E_NOINTERFACE, spBeta.QueryInterface(&spNobody));
  EXPECT_TRUE(!spNobody);
  EXPECT_EQ(3, Count());

  // The SDK's typed helper on IUnknown.
  CComPtr<ITestAlpha> spAlpha;
  EXPECT_EQ(S_OK, static_cast<IUnknown*>(spBeta)->QueryInterface(&spAlpha.p));
  EXPECT_EQ(Alpha(), spAlpha.p);

  EXPECT_TRUE(spBeta.IsEqualObject(spGamma));
  EXPECT_TRUE(spBeta.IsEqualObject(spAlpha));
  CComPtr<ITestAlpha> spOther;
  ASSERT_EQ(S_OK, CComObject<CPlainOnly>::CreateInstance(__uuidof(ITestAlpha), reinterpret_cast<void**>(&spOther)));
  EXPECT_FALSE(spBeta.IsEqualObject(spOther));
  EXPECT_FALSE(spBeta.IsEqualObject(nullptr));
  EXPECT_TRUE(CComPtr<ITestBeta>().IsEqualObject(nullptr));
}

TEST_F(ComPtrTest, QueryingPointerQueriesForeignInterfacesAndCopiesItsOwn) {
  {
    CComQIPtr<ITestBeta> spBeta(static_cast<IUnknown*>(Alpha()));
    EXPECT_EQ(Beta(), spBeta.p);
    EXPECT_EQ(2, Count());
    CComQIPtr<ITestBeta> spSame(Beta());
    EXPECT_EQ(3, Count());
    CComQIPtr<ITestNobody> spNobody(static_cast<IUnknown*>(Alpha()));
    EXPECT_TRUE(!spNobody);
    EXPECT_EQ(3, Count());

    CComQIPtr<ITestGamma> spGamma;
    spGamma = static_cast<IUnknown*>(Beta());
    EXPECT_EQ(static_cast<ITestGamma*>(m_pObject), spGamma.p);
    EXPECT_EQ(4, Count());
    // A failed query empties the pointer and drops what it held.
    spGamma = static_cast<IUnknown*>(static_cast<ITestBeta*>(nullptr));
    EXPECT_TRUE(!spGamma);
    EXPECT_EQ(3, Count());
    CComQIPtr<ITestAlpha> spAlpha(static_cast<IUnknown*>(Beta()));
    CComQIPtr<ITestDelta> spDelta(static_cast<IUnknown*>(spAlpha));
    EXPECT_TRUE(!spDelta);
    spAlpha = nullptr;
    EXPECT_EQ(3, Count());

    CComQIPtr<ITestBeta> spCopy(spBeta);
    CComQIPtr<ITestBeta> spMoved(std::move(spCopy));
    EXPECT_EQ(4, Count());
    spMoved = spSame;
    EXPECT_EQ(4, Count());

    // For IUnknown the query is the identity query, whatever interface it is given.
    CComQIPtr<IUnknown> spUnk(static_cast<IUnknown*>(Alpha()));
    EXPECT_EQ(static_cast<IUnknown*>(Beta()), spUnk.p);
    spUnk = static_cast<IUnknown*>(static_cast<ITestGamma*>(m_pObject));
    EXPECT_EQ(static_cast<IUnknown*>(Beta()), spUnk.p);
    EXPECT_EQ(5, Count());
  }
  EXPECT_EQ(1, Count());
}
