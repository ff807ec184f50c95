#include "RvoSkeinKnownAnswers_p.h"

int RvoSkeinKnownAnswers::stateBits(int hashBits)
{
    return hashBits <= 256 ? 256 : hashBits <= 512 ? 512 : 1024;
}

QVector<RvoSkeinKnownAnswers::Vector> RvoSkeinKnownAnswers::all()
{
    // bits, message bits, message, digest, where the vector comes from
    return {
            {256, 0, QByteArray::fromHex(""),
             QByteArray::fromHex(
                     "bc2763f707e262b80e0313791543a7ab0a4b6cd083270afb2fce4272e1bb0aa9"),
             QStringLiteral("ShortMsgKAT_256 Len=0")},
            {256, 8, QByteArray::fromHex("ff"),
             QByteArray::fromHex(
                     "a47be71a185ba0af820b3ce845a3d35a80ec64f96a0d6a36e3f5363624d8a091"),
             QStringLiteral("v1.1 paper C.1 (1 byte FF)")},
            {256, 256,
             QByteArray::fromHex(
                     "fffefdfcfbfaf9f8f7f6f5f4f3f2f1f0efeeedecebeae9e8e7e6e5e4e3e2e1e0"),
             QByteArray::fromHex(
                     "cc2da82f3973c2f7a8ced0bbb54aa028ecaf6b5911628d0ffabb2008e411d171"),
             QStringLiteral("v1.1 paper C.1 (32 bytes FF..E0, one block)")},
            {224, 8, QByteArray::fromHex("cc"),
             QByteArray::fromHex("5228c039a896424d18c9038ac295d73f7e848404c34b571e16a3d06a"),
             QStringLiteral("ShortMsgKAT_224 Len=8")},
            {256, 5, QByteArray::fromHex("48"),
             QByteArray::fromHex(
                     "961b03da161dbc8d1b6e8d85488938f86b01c827787440b76ab261f69a46b62d"),
             QStringLiteral("ShortMsgKAT_256 Len=5")},
            {160, 24, QByteArray::fromHex("616263"),
             QByteArray::fromHex("64098e53634bcb0592e6d67cc44b73a8919edae8"),
             QStringLiteral("computed: Skein-256-160, \"abc\"")},
            {512, 0, QByteArray::fromHex(""),
             QByteArray::fromHex(
                     "d3f7263a09837f4ce5c8ef70a5ddffac7b92d6c2ace5a12265bd5b593260a3ff"
                     "20d8b4b4c5494e945448b37abb1fc526f6b46089208fde938d7f23724c4bdfb7"),
             QStringLiteral("ShortMsgKAT_512 Len=0")},
            {512, 24, QByteArray::fromHex("616263"),
             QByteArray::fromHex(
                     "c52438c670f3d580dc4cb8d085141a19643668f82a6ad5f4ecb9292f04b8f38f"
                     "1b9dcc8dc4108f72e6ec81fc6cbcd6edf1867fc4f0beafa692957a4adc1183e3"),
             QStringLiteral("Skein-512-512 of \"abc\" (v1.1)")},
            {512, 8, QByteArray::fromHex("ff"),
             QByteArray::fromHex(
                     "8fca8d2705f99a56904308a4004c64efb668818b58b0895bf7296a2c5a54f930"
                     "1483d622c4a5aec855ac30087e1eb0e83940906e7b055d70d446c8d285f27f01"),
             QStringLiteral("v1.1 paper C.2 (1 byte FF)")},
            {512, 1024,
             QByteArray::fromHex(
                     "fffefdfcfbfaf9f8f7f6f5f4f3f2f1f0efeeedecebeae9e8e7e6e5e4e3e2e1e0"
                     "dfdedddcdbdad9d8d7d6d5d4d3d2d1d0cfcecdcccbcac9c8c7c6c5c4c3c2c1c0"
                     "bfbebdbcbbbab9b8b7b6b5b4b3b2b1b0afaeadacabaaa9a8a7a6a5a4a3a2a1a0"
                     "9f9e9d9c9b9a999897969594939291908f8e8d8c8b8a89888786858483828180"),
             QByteArray::fromHex(
                     "0f019e7c1849167cecb9a0d8f1b00ccd5b14159c5aaee449dab55a1bc6c85103"
                     "e8378454912e46af63067950f863043ccfa3699887a2577337caa66531bdbf9e"),
             QStringLiteral("v1.1 paper C.2 (128 bytes FF..80, two blocks)")},
            {384, 8, QByteArray::fromHex("cc"),
             QByteArray::fromHex("8b30555ba6ad149995be7efd292bdeda78a0a1563e46051d27ae947bf5c8afc5"
                                 "b10437e6950233a8ae752dce62649f97"),
             QStringLiteral("ShortMsgKAT_384 Len=8")},
            {512, 511,
             QByteArray::fromHex(
                     "538989eefa891a2f2fdb195e6c75a36ffd9010b0d58419cb209ea58178284e38"
                     "491a0a8549eecc27ed31c02e24df4321dae90e6867da851898867d2993997300"),
             QByteArray::fromHex(
                     "282c96c811226ef6d6aeef3b6c3f0d012bd63d29150adc3433d43c16deeb9793"
                     "bbb62dc44d56a9e6e8c02003744f43dc6f58d44a212b40f45c8f6f28e8a65cd8"),
             QStringLiteral("ShortMsgKAT_512 Len=511")},
            {1024, 8, QByteArray::fromHex("ff"),
             QByteArray::fromHex(
                     "2f2e87c14f431128e269b23b45beb364b6378453177c441bb6af578a86fc0fc9"
                     "adbe935f8e73b00e04e9af054e3cb487e8742d7679cf6a84261f6bd7c8bc1d71"
                     "d50a97d922701c6ef4c29c52764ecc6aec4557cc4c51169acf0a4bfab4575de9"
                     "cb81644ae6868b4998690657135a6cc1ecfe6c8e1f9fa729e3ff5ee55d9ce778"),
             QStringLiteral("v1.1 paper C.3 (1 byte FF)")},
            {1024, 1024,
             QByteArray::fromHex(
                     "fffefdfcfbfaf9f8f7f6f5f4f3f2f1f0efeeedecebeae9e8e7e6e5e4e3e2e1e0"
                     "dfdedddcdbdad9d8d7d6d5d4d3d2d1d0cfcecdcccbcac9c8c7c6c5c4c3c2c1c0"
                     "bfbebdbcbbbab9b8b7b6b5b4b3b2b1b0afaeadacabaaa9a8a7a6a5a4a3a2a1a0"
                     "9f9e9d9c9b9a999897969594939291908f8e8d8c8b8a89888786858483828180"),
             QByteArray::fromHex(
                     "6d8fd03daa406b2fe6d36ecef4ee1afe37d22d7c59b767cf871a7520150958e0"
                     "2de7cb36bf4d13dc44d05f32dbc5d2a2b4557d7746839f09bcf696813aa609be"
                     "9fcf839d24241aa64c1c1fb7d9c9d84c85eda0ca19c4443e194f98a222aa1764"
                     "5894eebdf6a31b6f1d13c3b60dcbbb1dbf46915dd4ebab25d81f85576bcb0d07"),
             QStringLiteral("v1.1 paper C.3 (128 bytes FF..80, one block)")},
            {1024, 24, QByteArray::fromHex("616263"),
             QByteArray::fromHex(
                     "10a8665a6b110e3d17b38cb99f027577c7093c67d83aa61142045346733b30b8"
                     "c48e4244a63f2535319842bd629b5b143e0568032d0f93990f19e4c5315c9eb2"
                     "a840836c773c7cf088a021ff97a19b96019c639dfe8319f98210b3cc41775541"
                     "5399fbaa8e3452a458f80c2d4f2b0b0926187f17675d467dd08687ebd248035c"),
             QStringLiteral("computed: Skein-1024-1024, \"abc\"")},
            {1032, 24, QByteArray::fromHex("616263"),
             QByteArray::fromHex("b9ac22945bec3396e43f24d12b177364fb7cd1793e6cc1391d5a254cf684af82"
                                 "2b3181d88966f5102cfff4a44846b3461ba16f36fc9cfb56918c689b0b337625"
                                 "d9fd7e233a0c823f0f5be0fcc0656848e4d7b3e7e040b2337ba4e61ae63f6d75"
                                 "0f2781bff8a32a67d598cbee83d338588a1b8d52a6a573f7e21313950415e5a2"
                                 "24"),
             QStringLiteral("computed: Skein-1024-1032 (two output blocks), \"abc\"")},
    };
}
