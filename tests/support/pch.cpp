// Carries the precompiled header that all tests share.

int main()
{
    return 0;
}
