// Deliberately does not compile.
void main()
{
    fragColor = undefinedThing;
}
